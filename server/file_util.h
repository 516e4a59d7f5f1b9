// Small file-system helpers of the value store. None of them throws; a failure is
// reported by the return value only.
#pragma once

#include <ctime>
#include <string>

namespace mcd {
namespace fs {

// Creates path and every missing parent directory (mode 0777 before the umask).
// True when the directory exists afterwards.
bool MakeDirs(const std::string& path);

// Replaces the file at path with text as one step: the text goes to a hidden temporary
// file in the same directory, which is renamed over path, so a reader sees either the
// old or the new content, never a part. With fileTime set, the file's access and
// modification times are set to it (whole seconds) before the rename.
bool ReplaceFile(const std::string& path, const std::string& text, const time_t* fileTime = nullptr);

// Appends text to path (created when missing) with a single write.
bool AppendToFile(const std::string& path, const std::string& text);

// Reads the leading decimal integer of a file; 0 when it is missing or holds none.
long ReadNumber(const std::string& path);

}  // namespace fs
}  // namespace mcd
