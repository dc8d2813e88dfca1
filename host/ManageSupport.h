// What the commands that manage a user's data share: the sign-in options, the sign-in itself, and the
// JSON text of their --json output.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/CommandLine.h"
#include "host/UserSession.h"

namespace tavik::host {

// --user, --password-file and the refused --password.
std::vector<Option> SignInOptions();
// Options of a command: the sign-in options followed by its own.
std::vector<Option> WithSignIn(std::vector<Option> own);
// The user the command line names (else the default user), signed in; the password is asked only for a
// user who has one.
std::unique_ptr<UserSession> SignIn(const Invocation& call);

// "text" with JSON's escapes.
std::string Json(std::string_view text);
// "yes" or "no".
const char* YesNo(bool value);
// yes/no, on/off, true/false, 1/0; throws UsageError naming the option otherwise.
bool ParseSwitch(const std::string& option, const std::string& value);

}  // namespace tavik::host
