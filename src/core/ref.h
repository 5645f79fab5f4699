// References on records for a scope, and access to the shared state of their objects by type. Every operation on a
// handle holds one of these while it uses the handle's record.
#pragma once

#include "base/failure.h"
#include "core/objmem.h"

struct ThreadData;

// The type of the state that all handles of an object share, by object type. A named object has that of an unnamed
// one.
template <uint32_t type>
struct SharedState;
template <>
struct SharedState<OBJ_THREAD> {
    using Type = ThreadData;
};
template <>
struct SharedState<OBJ_MUTEX> {
    using Type = pthread_mutex_t;
};
template <>
struct SharedState<OBJ_SEMAPHORE> {
    using Type = sem_t;
};

// A reference on the record of a handle of any type. A handle that is not open is refused with EINVAL and a log line.
// A handle whose type code is not that of its record is refused with EINVAL, without a log line: its fields mean
// something else.
class ObjectRef {
  public:
    explicit ObjectRef(HANDLE handle) { open(handle); }
    ~ObjectRef() { close(); }
    ObjectRef(const ObjectRef &) = delete;
    ObjectRef &operator=(const ObjectRef &) = delete;

    explicit operator bool() const { return record_ != nullptr; }
    ObjectRecord *operator->() const { return record_; }
    ObjectRecord *get() const { return record_; }

    // Drops the reference early; errno is kept.
    BOOL close() {
        if (record_ == nullptr) {
            return FALSE;
        }
        record_ = nullptr;
        const KeepErrno keep_errno;
        return vlliCloseObject(handle_);
    }

  protected:
    ObjectRef() = default;
    void open(HANDLE handle);
    void openSilently(HANDLE handle);

  private:
    HANDLE handle_ = 0;
    ObjectRecord *record_ = nullptr;
};

// How a typed reference refuses a handle that is open but of another type. kEinval, kUnchanged and kUnopened refuse a
// handle that is not open as ObjectRef does.
enum class Refusal {
    kEinval,     // sets EINVAL
    kUnchanged,  // keeps errno
    kUnopened,   // keeps errno, and does not check whether the handle is open: nothing is logged
    kSilent,     // keeps errno and logs nothing, also for a handle that is not open
};

// A reference on the record of a handle of one type, or of one of several types with the same shared state.
template <uint32_t type, uint32_t... more_types>
class Ref : public ObjectRef {
  public:
    explicit Ref(HANDLE handle, Refusal refusal = Refusal::kEinval) {
        if (refusal == Refusal::kEinval || refusal == Refusal::kUnchanged) {
            open(handle);
            if (*this && !names(handle)) {
                close();
                if (refusal == Refusal::kEinval) {
                    errno = EINVAL;
                }
            }
        } else if (!names(handle)) {
            return;
        } else if (refusal == Refusal::kUnopened) {
            open(handle);
        } else {
            openSilently(handle);
        }
    }

    // True when the type code in a handle is one of the types.
    static constexpr bool names(HANDLE handle) {
        return vlliGetObjectType(handle) == type || ((vlliGetObjectType(handle) == more_types) || ...);
    }

    // The shared state, or null for a record whose creation failed before it had one.
    auto *state() const { return static_cast<typename SharedState<type>::Type *>(get()->payload); }
};

// A record that is pinned for a scope of a few instructions, which costs a quarter of taking and dropping a
// reference. The scope is empty, without a log line, for a handle that is not open or of another type, and while
// another thread has pinned the record: the caller then takes a reference instead.
template <uint32_t type, uint32_t... more_types>
class PinnedRecord {
  public:
    explicit PinnedRecord(HANDLE handle) {
        const uint32_t index = handle & kIndexMask;
        if (!Ref<type, more_types...>::names(handle) || index >= kObjectCount ||
            __atomic_exchange_n(&record_pins[index].busy, 1, __ATOMIC_ACQUIRE) != 0) {
            return;
        }
        pin_ = &record_pins[index];
        if (__atomic_load_n(&pin_->handle, __ATOMIC_RELAXED) == handle) {
            record_ = &objects[index];
        }
    }
    ~PinnedRecord() {
        if (pin_ != nullptr) {
            __atomic_store_n(&pin_->busy, 0, __ATOMIC_RELEASE);
        }
    }
    PinnedRecord(const PinnedRecord &) = delete;
    PinnedRecord &operator=(const PinnedRecord &) = delete;

    // The shared state; null when the record is not pinned.
    auto *state() const {
        return static_cast<typename SharedState<type>::Type *>(record_ != nullptr ? record_->payload
                                                                                  : nullptr);
    }

  private:
    RecordPin *pin_ = nullptr;
    ObjectRecord *record_ = nullptr;
};

// A handle under construction: closed at the end of its scope, with errno kept, unless it is released.
class NewHandle {
  public:
    explicit NewHandle(HANDLE handle) : handle_(handle) {}
    ~NewHandle() {
        if (handle_ != 0) {
            const KeepErrno keep_errno;
            vlliCloseObject(handle_);
        }
    }
    NewHandle(const NewHandle &) = delete;
    NewHandle &operator=(const NewHandle &) = delete;

    explicit operator bool() const { return handle_ != 0; }
    HANDLE get() const { return handle_; }
    ObjectRecord *record() const { return vlliGetObjectAddress(handle_); }
    HANDLE release() {
        const HANDLE handle = handle_;
        handle_ = 0;
        return handle;
    }

  private:
    HANDLE handle_;
};
