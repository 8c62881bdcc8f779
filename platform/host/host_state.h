// Host state shared between the processes of one device: a directory of small files.
#pragma once

#include <map>
#include <string>

namespace qvhost {

// "/var/run/moorglass-host", or the directory named by QV_HOST_STATE_DIR. Readers find it
// missing on a fresh device; writers make it with EnsureStateDir.
std::string StateDir();
void EnsureStateDir();
std::string StatePath(const std::string& name);

using KeyValues = std::map<std::string, std::string>;

// Reads "key=value" lines; a missing file is an empty map, lines without "=" are skipped.
KeyValues ReadKeyValues(const std::string& path);
// Sets one key (or removes it when `value` is null) in place of the file's old text: read,
// change and replace run under an exclusive lock, so concurrent setters lose nothing.
bool UpdateKeyValue(const std::string& path, const std::string& key, const char* value);

}  // namespace qvhost
