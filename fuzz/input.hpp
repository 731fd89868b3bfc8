// The bytes of one run, taken from the front as whatever a target needs next.
//
// Past the end every number is zero and every text is empty, so any bytes are a whole run and cutting them short is a
// smaller one. require() is how a target says that something which must hold did not: the fuzzer sees it as a crash.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <type_traits>

namespace fuzz {

class input {
  public:
    input(const uint8_t *data, size_t size) : at_(data), left_(size) {}

    bool done() const { return left_ == 0; }

    template <class Number = uint8_t> Number number()
    {
        static_assert(std::is_integral_v<Number>);
        Number value = 0;
        const size_t n = std::min(left_, sizeof value);
        if (n > 0)
            memcpy(&value, at_, n);
        skip(n);
        return value;
    }

    uint32_t below(uint32_t bound) { return number() % bound; }
    bool chance() { return (number() & 1) != 0; }

    template <class Value, size_t Size> Value pick(const Value (&values)[Size])
    {
        return values[below(static_cast<uint32_t>(Size))];
    }

    std::string bytes(size_t size)
    {
        const size_t n = std::min(left_, size);
        std::string taken(n > 0 ? reinterpret_cast<const char *>(at_) : "", n);
        skip(n);
        return taken;
    }
    std::string text() { return bytes(number()); }
    std::string rest() { return bytes(left_); }

  private:
    void skip(size_t n)
    {
        if (n == 0)
            return;
        at_ += n;
        left_ -= n;
    }

    const uint8_t *at_;
    size_t left_;
};

inline void require(bool holds, const char *what)
{
    if (holds)
        return;
    fprintf(stderr, "does not hold: %s\n", what);
    abort();
}

// What the library prints is of no interest here, and there is much of it.
inline void be_quiet()
{
    require(freopen("/dev/null", "w", stdout) != nullptr, "stdout can be dropped");
}

} // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
