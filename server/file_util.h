// Small file-system helpers of the value store. None of them throws; a failure is
// reported by the return value only, with errno telling why.
#pragma once

#include <ctime>
#include <string>

namespace mcd {
namespace fs {

// Creates path and every missing parent directory (mode 0777 before the umask). The
// parent of each directory made here is synced, so that a new directory survives a
// power loss. True when the directory exists afterwards.
bool MakeDirs(const std::string& path);

// Replaces the file at path with text as one step: the text goes to a hidden temporary
// file in the same directory (see IsTemporaryName), which is renamed over path, so a
// reader sees either the old or the new content, never a part. With fileTime set, the
// file's access and modification times are set to it (whole seconds) before the
// rename. With durable set, the temporary file is synced before the rename and the
// directory after it, so that after a power loss the file holds the old or the new
// text, never nothing.
bool ReplaceFile(const std::string& path, const std::string& text, const time_t* fileTime = nullptr,
                 bool durable = false);

// Whether a directory entry name is one of ReplaceFile's temporary files
// (".<name>.tmp<pid>.<n>"): one found at start-up was left by a process that died.
bool IsTemporaryName(const std::string& name);
// Removes the temporary files of ReplaceFile found directly in dir; returns how many.
int RemoveTemporaryFiles(const std::string& dir);

// Syncs a directory, so that the entries made or renamed in it are durable.
bool SyncDir(const std::string& dir);

// Appends text to path (created when missing) with a single write.
bool AppendToFile(const std::string& path, const std::string& text);

// Reads the leading decimal integer of a file; 0 when it is missing or holds none.
long ReadNumber(const std::string& path);
// The same, telling apart a file that holds a number (true) from one that is missing
// or unreadable or holds none (false).
bool ReadNumberStrict(const std::string& path, long& value);

}  // namespace fs
}  // namespace mcd
