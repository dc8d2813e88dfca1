// The controlling terminal, as a console program reads a secret from it: the prompt shown, the line read
// with echo off (the console mode without ENABLE_ECHO_INPUT on Windows).
#pragma once

#include <string>

// False when the process has no terminal; the line end is not part of the secret.
bool TavikReadSecret(const std::string& prompt, std::string& secret);
