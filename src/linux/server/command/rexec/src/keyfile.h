// Keys of System V objects, made from files that exist for this alone.
//
// The files may lie where others can write, and what is made here belongs to who runs this: a symbolic link
// is followed only where root or the caller has made it.
#pragma once

#include <sys/ipc.h>
#include <sys/types.h>

struct KeyFile {
    const char *directory;
    mode_t directory_mode;
    const char *name;
    mode_t mode;
    int project; // as of ftok(3)
};

enum class KeyStep { directory, file, key, done };

// Makes the directory (one level) and the empty file where they do not exist, and the key that ftok(3) makes
// from the file. Returns KeyStep::done with *key set, or the step that failed, with errno.
KeyStep make_key(const KeyFile &file, key_t *key);
