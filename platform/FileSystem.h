// Paths, temporary files, the module's own path and file searches under their Win32 names. Paths are
// POSIX paths: the separator is '/', and there are no drives (a drive part is always empty).
#pragma once

#include <cstdio>
#include <string>

#include "platform/WinTypes.h"

constexpr int _MAX_PATH = 260;
constexpr int _MAX_DRIVE = 3;
constexpr int _MAX_DIR = 256;
constexpr int _MAX_FNAME = 256;
constexpr int _MAX_EXT = 256;

constexpr DWORD FILE_ATTRIBUTE_READONLY = 0x01;
constexpr DWORD FILE_ATTRIBUTE_DIRECTORY = 0x10;
constexpr DWORD FILE_ATTRIBUTE_NORMAL = 0x80;
constexpr DWORD INVALID_FILE_ATTRIBUTES = 0xFFFFFFFFu;

constexpr LONG ERROR_FILE_EXISTS = 80;
constexpr LONG ERROR_NO_MORE_FILES = 18;
constexpr LONG ERROR_DIRECTORY = 267;

// Splits a path into its drive (always empty here), directory with its trailing separator, file title
// and extension with its dot. Any output pointer may be null; outputs are cut to their _MAX_ sizes.
void _splitpath(const char* path, char* drive, char* dir, char* fname, char* ext);
// Joins the parts; a separator is added after a directory that lacks one and a dot before an extension
// that lacks one. The result is cut to _MAX_PATH - 1 characters.
void _makepath(char* path, const char* drive, const char* dir, const char* fname, const char* ext);

// The directory for temporary files with a trailing separator ($TMPDIR, else /tmp). Returns the length
// copied, or the size needed (terminator included) when the buffer is too small.
DWORD GetTempPath(DWORD bufferLength, char* buffer);

// As Windows: the name is path + up to three characters of prefix + the number in upper-case
// hexadecimal + ".tmp". With unique 0 the number is chosen, the file is created empty (0600) and the
// number returned; a non-zero unique is used as given (its low 16 bits) and no file is created.
// Returns 0 and sets the last error when the directory is missing or no free name was found.
// The buffer must hold MAX_PATH characters.
UINT GetTempFileName(const char* pathName, const char* prefix, UINT unique, char* tempFileName);

// The running program's full path (module null or not). When the host has set an application
// directory, the path is that directory joined with the program's file name, so that files the library
// keeps "beside the program" land where a Linux host wants them. Returns the length copied; a buffer
// too small gets a cut, terminated copy, the size as result and ERROR_INSUFFICIENT_BUFFER.
DWORD GetModuleFileName(HMODULE module, char* fileName, DWORD size);
// Null or empty restores the program's real directory.
void TavikSetApplicationDirectory(const char* directory);

// The C runtime's: the descriptor behind a stream (-1 for null), and whether a descriptor is a character
// device (non-zero), which is how a program tells a terminal from a file or a pipe. As on Windows, other
// character devices (the null device) count too.
int _fileno(FILE* stream);
int _isatty(int fd);

// Where a Linux host keeps the files the library puts beside the program: $TAVIK_DATA, else
// $XDG_DATA_HOME/tavikmail (when that is an absolute path), else ~/.local/share/tavikmail. Empty when
// none of them can be named (no home directory).
std::string TavikDataDirectory();
// Creates the directory and any missing parents owner-only (0700), then makes it the application
// directory (made absolute, so that paths built from it stay valid wherever the program runs). An
// existing directory keeps its mode. FALSE with the last error set when the name is empty, or the
// directory cannot be made or is not a directory; the application directory is then unchanged.
BOOL TavikUseDataDirectory(const char* directory);

// Removes a file (not a directory). FALSE with the last error set on failure.
BOOL DeleteFile(const char* fileName);
// The attributes of a file or directory, INVALID_FILE_ATTRIBUTES when it is missing.
DWORD GetFileAttributes(const char* fileName);

struct WIN32_FIND_DATA {
    DWORD dwFileAttributes;
    FILETIME ftCreationTime;
    FILETIME ftLastAccessTime;
    FILETIME ftLastWriteTime;
    DWORD nFileSizeHigh;
    DWORD nFileSizeLow;
    DWORD dwReserved0;
    DWORD dwReserved1;
    char cFileName[MAX_PATH];
    char cAlternateFileName[14];
};
using LPWIN32_FIND_DATA = WIN32_FIND_DATA*;

// Searches a directory for names matching the last component of the pattern ('*' and '?' wildcards; a
// pattern without wildcards finds that one file or directory). INVALID_HANDLE_VALUE with
// ERROR_FILE_NOT_FOUND (or ERROR_PATH_NOT_FOUND) when nothing matches. A trailing separator makes
// the search fail, as on Windows.
HANDLE FindFirstFile(const char* fileName, WIN32_FIND_DATA* findData);
BOOL FindNextFile(HANDLE find, WIN32_FIND_DATA* findData);
BOOL FindClose(HANDLE find);
