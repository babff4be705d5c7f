/*
 * Where the handles of the error table come from.
 *
 * A handle that was released must not mean another object soon afterwards: a back end may hand the same
 * result in twice. So handles grow through all 32 bits before one can come back, and values with a meaning of
 * their own are never given out. Not synchronised: the table's mutex guards it.
 */
#ifndef ZORVAN_COMMON_SRC_HANDLE_COUNTER_H
#define ZORVAN_COMMON_SRC_HANDLE_COUNTER_H

#include <zorvan_common.h>

namespace zorvan::common {

/** The handle of the static "out of memory" object, which is in no table. */
inline constexpr zorvan_result_t kOutOfMemoryHandle = 0xfffffffeU;

/** Counts through the values that may be handles. */
class HandleCounter {
  public:
    /** @param last  the value taken to have been given out last */
    constexpr HandleCounter() = default;
    explicit constexpr HandleCounter(zorvan_result_t last) : last_(last) {}

    /** The next value that is neither reserved nor live.
     *  @param is_live  tells whether a value is in use; at least one must not be */
    template <class IsLive>
    zorvan_result_t next(IsLive is_live) {
        do {
            ++last_;
        } while (is_reserved(last_) || is_live(last_));
        return last_;
    }

    static constexpr bool is_reserved(zorvan_result_t value) {
        return value == ZORVAN_SUCCESS || value == ZORVAN_FAILURE || value == kOutOfMemoryHandle;
    }

  private:
    zorvan_result_t last_ = 0;
};

}  // namespace zorvan::common

#endif
