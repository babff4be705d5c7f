/*
 * A static object whose destructor never runs.
 *
 * Detached threads may still use the runtime while the process exits, after the destructors of static objects
 * have begun to run. State that they can reach lives in one of these.
 */
#ifndef ZORVAN_COMMON_SRC_NEVER_DESTROYED_H
#define ZORVAN_COMMON_SRC_NEVER_DESTROYED_H

namespace zorvan::common {

/** Holds a T for the life of the process; to be used for static objects alone. */
template <class T>
union NeverDestroyed {
    constexpr NeverDestroyed() : value() {}
    NeverDestroyed(const NeverDestroyed&) = delete;
    NeverDestroyed& operator=(const NeverDestroyed&) = delete;
    constexpr ~NeverDestroyed() {}

    T value;
};

}  // namespace zorvan::common

#endif
