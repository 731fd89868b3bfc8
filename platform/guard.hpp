// What keeps exceptions inside the platform's libraries. Every function of a C face that can meet one, and every
// callback that such a function calls, ends in a `catch (...)` that asks here what was thrown, as an errno value.
//
// Memory may be short anywhere, a descriptor where one is made; an application's callback may throw what it likes.
#ifndef PLX_PLATFORM_GUARD_HPP
#define PLX_PLATFORM_GUARD_HPP

#include <cerrno>
#include <new>
#include <system_error>
#include <tq_mom.h>

namespace platform {

/// Inside a handler: ENOMEM, the number that a system error carries, or else EIO.
[[nodiscard]] inline int thrown_error() noexcept
{
    try {
        throw;
    } catch (const std::bad_alloc &) {
        return ENOMEM;
    } catch (const std::system_error &error) {
        return error.code().value() > 0 ? error.code().value() : EIO;
    } catch (...) {
        return EIO;
    }
}

/// The same for those whose results are the store client's.
[[nodiscard]] inline int thrown_result() noexcept
{
    switch (thrown_error()) {
    case ENOMEM:
        return TQ_MOM_NO_MEMORY;
    case EMFILE:
    case ENFILE:
        return TQ_MOM_NO_DESCRIPTOR;
    default:
        return TQ_MOM_STORE_ERROR;
    }
}

/// For functions whose failure is a value, with errno telling why.
template <typename Value> Value thrown_errno(Value failure) noexcept
{
    errno = thrown_error();
    return failure;
}

} // namespace platform

#endif
