// File mappings and their views. A mapping of a caller's file keeps a duplicate of its descriptor; any other mapping is
// a user of a shared-memory object. A view is a handle of its own, which the program never sees.

#include <sys/mman.h>
#include <unistd.h>
#include <cstdio>

#include "base/descriptor.h"
#include "base/failure.h"
#include "base/guards.h"
#include "core/ref.h"
#include "sharing/shmem.h"
#include "sharing/shmem_objects.h"

namespace {

// A process id and a handle in hexadecimal.
constexpr size_t kAnonymousName = 17;

// Creates an object that no other process opens. If the name exists, it was left by a process that died, or belongs to
// a process of another process-id namespace. That object must not be joined, and its name is not needed: it goes.
PendingFd createAnonymous(int access, SIZE_T size, HANDLE handle) {
    char name[kAnonymousName];
    snprintf(name, sizeof name, "%08X%08X", static_cast<unsigned>(getpid()), handle);
    for (;;) {
        PendingFd file = vlliCreateSharedFile(access | O_EXCL, size, name, false);
        const int error = errno;
        const bool removed = shm_unlink(name) == 0 || errno == ENOENT;
        errno = file ? 0 : error;
        if (file || error != EEXIST || !removed) {
            return file;
        }
    }
}

BOOL openMapping(ObjectRecord *record, HANDLE handle, DWORD access, DWORD size, LPCSTR name) {
    if (access != O_RDONLY && access != O_WRONLY && access != O_RDWR) {
        return Fail(EINVAL);
    }
    const auto flags = static_cast<int>(access);
    const bool named = name != nullptr && *name != '\0';
    PendingFd file =
        named ? vlliCreateSharedFile(flags, size, name, false) : createAnonymous(flags, size, handle);
    if (!file) {
        return FALSE;
    }
    const int existed = errno;
    if (!vlliEnterSharedFile(record, &file, 0)) {
        return FALSE;
    }
    return Fail(existed, TRUE);
}

BOOL openFile(ObjectRecord *record, HANDLE file) {
    record->flags = OBJF_FILE_BACKED;
    record->fd = dup(static_cast<int>(file));
    if (record->fd == -1) {
        return FALSE;
    }
    return Fail(0, TRUE);
}

// Maps what a view handle refers to and enters it into the hash; null with errno.
void *mapView(HANDLE handle, DWORD protection, DWORD offset, SIZE_T length) {
    ObjectRecord *view = vlliGetObjectAddress(handle);
    void *address =
        mmap(nullptr, length, static_cast<int>(protection), MAP_SHARED, view->fd, static_cast<off_t>(offset));
    if (address == MAP_FAILED) {
        return nullptr;
    }
    view->addr = address;
    view->size = length;
    if (vlliHashMMap(handle) != 0) {
        const KeepErrno keep_errno;
        munmap(address, length);
        return nullptr;
    }
    return address;
}

}  // namespace

HANDLE vllCreateFileMapping(HANDLE hFile, DWORD dwAccess, DWORD dwSize, LPCSTR lpName) {
    const NoCancel no_cancel;
    NewHandle handle(vlliCreateObject(OBJ_SHMEM));
    if (!handle) {
        return 0;
    }
    ObjectRecord *record = handle.record();
    record->fd = -1;
    const BOOL opened = hFile != INVALID_HANDLE_VALUE
                            ? openFile(record, hFile)
                            : openMapping(record, handle.get(), dwAccess, dwSize, lpName);
    return opened ? handle.release() : 0;
}

LPVOID vllMapViewOfFile(HANDLE hMapping, DWORD dwProtection, DWORD dwOffset, SIZE_T length) {
    if (vlliGetObjectType(hMapping) != OBJ_SHMEM) {
        const ObjectRef other(hMapping);  // logs a value that is no handle
        return Fail(EINVAL);
    }
    NewHandle view(vllDuplicateHandle(hMapping));
    if (!view) {
        return nullptr;
    }
    vlliWithholdHandle(view.get());
    void *address = mapView(view.get(), dwProtection, dwOffset, length);
    if (address != nullptr) {
        view.release();
    }
    return address;
}

BOOL vllUnmapViewOfFile(LPCVOID lpBaseAddress) {
    const HANDLE handle = vlliUnhashMMapp(lpBaseAddress);
    if (handle == 0) {
        return Fail(EINVAL);
    }
    const NewHandle view(handle);
    const ObjectRecord *record = view.record();
    return record->addr != nullptr && munmap(record->addr, record->size) == 0;
}

BOOL vlliCloseShmem(ObjectRecord *record) {
    const NoCancel no_cancel;
    if ((record->flags & OBJF_FILE_BACKED) != 0) {
        const Fd file(record->fd);
    } else {
        vlliCloseSharedFile(record, false);
    }
    return TRUE;
}

BOOL vlliDuplicateShmem(ObjectRecord *record, const ObjectRecord *source) {
    record->flags = source->flags;
    if ((source->flags & OBJF_FILE_BACKED) == 0) {
        return vlliShareSharedFile(record, source, false);
    }
    record->fd = dup(source->fd);
    return record->fd != -1;
}
