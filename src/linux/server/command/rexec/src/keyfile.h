// Files that System V keys are made from.
//
// They may lie where others can write, and what is made here belongs to who runs this: a symbolic link is
// followed only where root or the caller has made it.
#pragma once

#include <sys/types.h>

// Make the directory (one level) or the empty file where it does not exist. Return 0, or -1 with errno.
int make_key_directory(const char *path, mode_t mode);
int make_key_file(const char *path, mode_t mode);
