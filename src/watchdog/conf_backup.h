#pragma once
// Backups of the option file: made beside it without moving it, and bounded
// in number.
#include <string>
#include <sys/stat.h>
#include <vector>

// "<path>-<sec>.<usec>", the name the writer gives a backup.
std::string conf_backup_name(const std::string& path, long sec, long usec);

// Keeps the file at `path` (whose stat is `standing`) under `backup`: a second
// name for it, or where that is refused a copy with the same mode. The file at
// `path` stays in place either way. 0, or -errno.
int conf_backup_keep(const std::string& path, const std::string& backup, const struct stat& standing);

// Of the names in one directory, the backups of the file named `base` that are
// beyond the newest `keep`, oldest first.
std::vector<std::string> conf_backups_beyond(const std::vector<std::string>& names, const std::string& base,
                                             int keep);

// Removes the backups of `path` beyond the newest `keep`; the number removed.
int conf_backups_prune(const std::string& path, int keep);
