// The record locks by which processes share a shared-memory object: one of them initialises it, many use it, the last
// one empties it. These are the steps on one open file; shmem_objects.h counts the users within this process.
#pragma once

#include "base/descriptor.h"

// What the opener of an object has become. In the first case it holds the exclusive lock of an object whose content is
// of no use; in the second the shared lock of one that another user initialised. On failure errno is set.
enum class Opener { kCreator, kUser, kFailed };

// Waits while another process initialises the object, and for a while when others hold the lock of an empty one. Called
// with cancellation disabled.
Opener vlliJoinSharedFile(int fd);

// Takes the shared lock, waiting for it: 0, or -1 with errno. A creator's content is then open to all.
int vlliUseSharedFile(int fd);

// Ends the use of the object and drops the lock; the last user of all empties the object.
void vlliLeaveSharedFile(int fd);

// Opens the same object again and takes a shared lock of its own: absent when that is not possible.
Fd vlliUseSharedFileAgain(int fd);
