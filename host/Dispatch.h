// The whole of `tavik`'s command line: finds the command, parses its arguments, prints help and usage
// errors, and runs it with the library's error window reporting to err.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace tavik::host {

// args: the command line without the program name. Returns the exit code (0 done, 1 failed, 2 bad usage).
int RunTavik(const std::vector<std::string>& args, FILE* out, FILE* err);

}  // namespace tavik::host
