#pragma once
// Per-child option files. They live in a directory private to this supervisor
// (mode 0700, unpredictable name, checked before every use) and are created
// exclusively, mode 0600, never through a link: no other user can plant,
// read or swap one. Each is removed when its child has ended.
#include <string>

struct app;

// The file's text: the raw lines, then (with an alias) the type's default
// lines that no raw line gives.
std::string child_conf_text(const app& record);

// Writes the next file for `record` and stores its path in child_conf_file.
// 0, or -errno (logged; child_conf_file empty, nothing left on disk).
int child_conf_create(app& record);

// Removes the file of the record's last launch, if any, and forgets its path.
void child_conf_remove(app& record);

// Sequence number of the next file (process-wide, never reset).
unsigned child_conf_seq();

// The private directory, "" before the first file.
std::string child_conf_dir();
