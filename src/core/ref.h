// References on records, for a scope, by the type of their objects.
#pragma once

#include "base/failure.h"
#include "core/objmem.h"

struct ThreadData;

// What the handles of an object share, by type.
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

// A reference on the record of a handle of any type. A handle that is not open is logged and refused with EINVAL. So is,
// without a log line, a handle whose type code is not that of its record: no operation may follow a field
// that its type does not have.
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

// How a typed reference refuses handles.
enum class Refusal {
    kEinval,  // EINVAL; one that is not open is logged, too
    kUnchanged,  // EINVAL and a log line for one that is not open; an open one of another type leaves errno alone
    kUnopened,  // one that claims another type leaves errno alone, open or not; otherwise as kUnchanged
    kSilent,    // errno is left alone, and nothing is logged
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
                errno = refusal == Refusal::kEinval ? EINVAL : errno;
            }
        } else if (!names(handle)) {
            return;
        } else if (refusal == Refusal::kUnopened) {
            open(handle);
        } else {
            openSilently(handle);
        }
    }

    // True when a handle claims one of the types.
    static constexpr bool names(HANDLE handle) {
        return vlliGetObjectType(handle) == type || ((vlliGetObjectType(handle) == more_types) || ...);
    }

    // What the object's handles share. Null for a record that lost it on a failed creation.
    auto *state() const { return static_cast<typename SharedState<type>::Type *>(get()->payload); }
};

// A record that is kept from being destroyed for a step of a few instructions, which costs a quarter of taking and
// dropping a reference. Empty, without a log line, for any handle that is not open and of one of the types, and while
// another thread is at the same record: then the caller takes a reference.
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

    // What the object's handles share, or null.
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
