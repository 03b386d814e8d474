// zplazy.h: objects that are made at first use, by look-ups that may run side by side. Never
// installed.
#ifndef Z_ZPLAZY_H
#define Z_ZPLAZY_H

#include <memory>
#include <utility>

/// The object, or null as long as nobody has made it.
template <typename T>
T* zloadMade(T* const& place) {
    return __atomic_load_n(&place, __ATOMIC_ACQUIRE);
}

/// Puts a fresh object into its place and returns it. Two may ask for one object at the same time:
/// whoever comes second gets the first one's.
template <typename T, typename Delete>
T* zpublish(T*& place, std::unique_ptr<T, Delete> fresh) {
    T* current = nullptr;
    if (__atomic_compare_exchange_n(&place, &current, fresh.get(), false, __ATOMIC_ACQ_REL,
                                    __ATOMIC_ACQUIRE))
        return fresh.release();
    return current;
}

/// Owns such an object. Look-ups load and publish; all else needs the owner's lock.
template <typename T>
class ZPLazy {
public:
    ZPLazy() {}
    ZPLazy(ZPLazy&& other) noexcept : made_(std::exchange(other.made_, nullptr)) {}
    ZPLazy& operator=(ZPLazy&& other) noexcept {
        std::swap(made_, other.made_);
        return *this;
    }
    ~ZPLazy() { delete made_; }

    T* get() const { return zloadMade(made_); }
    T* publish(std::unique_ptr<T> fresh) const { return zpublish(made_, std::move(fresh)); }
    void reset() { *this = ZPLazy(); }

private:
    mutable T* made_ = nullptr;
};

#endif
