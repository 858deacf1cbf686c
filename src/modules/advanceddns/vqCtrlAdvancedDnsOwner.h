// Owner<T, Release>: a pointer that passes what it points at to Release at the end of its scope, unless it is null.
//
// The standard library's owner is not used: its header needs the locale headers of one particular C library, and the
// module builds with others too.
#ifndef VQ_CTRL_ADVANCED_DNS_OWNER_H
#define VQ_CTRL_ADVANCED_DNS_OWNER_H

#include <cstddef>

namespace advanceddns {

// As large as its pointer. One owner has the resource at a time: an owner can be moved, not copied.
template <typename T, auto ReleaseResource>
class Owner {
  public:
    Owner() = default;
    explicit Owner(T *Owned) : Owned_(Owned) {}
    ~Owner() { Reset(nullptr); }

    Owner(Owner &&Other) noexcept : Owned_(Other.Release()) {}
    Owner &operator=(Owner &&Other) noexcept
    {
        Reset(Other.Release());
        return *this;
    }
    Owner(const Owner &) = delete;
    Owner &operator=(const Owner &) = delete;

    // The resource, which stays the property of this owner; null if there is none.
    [[nodiscard]] T *Get() const { return Owned_; }
    T *operator->() const { return Owned_; }
    T &operator*() const { return *Owned_; }
    bool operator==(std::nullptr_t) const { return Owned_ == nullptr; }

    // The resource, which is the caller's to release from now on.
    [[nodiscard]] T *Release()
    {
        T *Given = Owned_;
        Owned_ = nullptr;
        return Given;
    }

    // Releases the resource and owns `Next` instead, which may be null.
    void Reset(T *Next)
    {
        T *Previous = Owned_;
        Owned_ = Next;
        if (Previous != nullptr) {
            ReleaseResource(Previous);
        }
    }

  private:
    T *Owned_ = nullptr;
};

} // namespace advanceddns

#endif
