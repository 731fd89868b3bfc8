// The diagnostic channel: the one way in which the library says anything.
//
// A message has a severity word, which names a bit of fp_udp_debug_sw (the console side) and a threshold of
// g_policy_plx_zlog_level (the log side). The sides are independent. With both closed a call costs two word tests: the
// formatting is out of line and cold. A message's format is checked against its arguments when it is compiled, and
// carries the name and line of the function that reports, also when it is handed on to a shared helper.
//
// An area declares its reporter once:
//     inline constexpr char source[] = "app/fp_udp_acldb.cpp";
//     template <diag::Word W> inline constexpr diag::reporter<W, source> report{};
// and then says report<Error>("malloc for acl node fail.").
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <plx/diag.h>
#include <tq_zlog.h>
#include <type_traits>

namespace plx::diag {

// The severity words.
enum class Word : uint8_t {
    Error,  // something failed
    Impt,   // rare and worth knowing
    Notice, // an event that changed nothing
    Detail  // every operation
};

struct gate {
    const char *word;
    uint32_t console_bit; // of fp_udp_debug_sw
    uint32_t log_level;   // lowest g_policy_plx_zlog_level that lets it through
    int zlog_level;
};

constexpr gate gate_of(Word word)
{
    switch (word) {
    case Word::Error:
        return {"Error", FP_UDP_DEBUG_ERROR, 1, TQ_ZLOG_ERROR};
    case Word::Impt:
        return {"Impt", FP_UDP_DEBUG_IMPT, 2, TQ_ZLOG_WARN};
    case Word::Notice:
        return {"Notice", FP_UDP_DEBUG_NOTICE, 3, TQ_ZLOG_NOTICE};
    case Word::Detail:
        return {"Detail", FP_UDP_DEBUG_DETAIL, 5, TQ_ZLOG_DEBUG};
    }
    return {};
}

// In static memory, so that a closed call builds nothing to pass on.
template <Word W> inline constexpr gate gate_for = gate_of(W);

inline bool console_open(const gate &g)
{
    return (fp_udp_debug_sw & g.console_bit) != 0;
}

inline bool log_open(const gate &g)
{
    return g_policy_plx_zlog_level >= g.log_level;
}

// The argument type of a printf conversion that ends in `conversion`, as far as the library's messages use them.
template <class Arg> constexpr bool fits(char conversion, bool wide)
{
    if (conversion == 's')
        return std::is_convertible_v<Arg, const char *>;
    if (conversion == 'p')
        return std::is_pointer_v<Arg>;
    return std::is_integral_v<Arg> && (sizeof(Arg) == sizeof(long long)) == wide;
}

// True when the conversions of `format` are exactly those for Args.
template <class... Args> constexpr bool format_fits(const char *format)
{
    constexpr bool (*checks[])(char, bool) = {&fits<Args>..., nullptr};
    unsigned used = 0;
    for (; *format != '\0'; ++format) {
        if (*format != '%' || *++format == '%')
            continue;
        while (*format == '-' || (*format >= '0' && *format <= '9'))
            ++format;
        const bool wide = format[0] == 'l' && format[1] == 'l';
        if (wide)
            format += 2;
        if (used == sizeof...(Args) || !checks[used++](*format, wide))
            return false;
    }
    return used == sizeof...(Args);
}

// The place that a helper reports for: its caller's name and line.
struct place {
    const char *function;
    int line;
};

void message_does_not_fit_its_arguments(); // never defined: calling it stops the compilation

// Formats are short, so that a frame and a format fit into one form on the stack.
inline constexpr size_t longest_format = 255;
inline constexpr char frame[] = "\n [%s] %s[%d]:";

// A message's format, with the function and line it was written in.
template <class... Args> struct text {
    consteval text(const char *f, const char *fn = __builtin_FUNCTION(), int ln = __builtin_LINE())
        : format(f), function(fn), line(ln)
    {
        if (!format_fits<Args...>(f) || __builtin_strlen(f) > longest_format)
            message_does_not_fit_its_arguments();
    }
    const char *format;
    const char *function;
    int line;
};

// A form of the frame's arguments and the format's: the message reaches standard output whole, by one printf.
struct console_form {
    explicit console_form(const char *format);
    char text[sizeof frame + longest_format];
};

void log_line(const gate &g, const char *source, const char *function, int line, const char *line_text);

inline constexpr size_t log_line_size = 1024;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security" // text<> has checked the format
template <class... Args>
[[gnu::cold, gnu::noinline]] void emit(const gate &g, const char *source, place at, const char *format, Args... args)
{
    if (console_open(g)) {
        std::printf(console_form(format).text, g.word, at.function, at.line, args...);
        std::fflush(stdout);
    }
    if (log_open(g)) {
        char buffer[log_line_size] = {};
        at_snprintf(buffer, sizeof buffer, format, args...);
        log_line(g, source, at.function, at.line, buffer);
    }
}
#pragma GCC diagnostic pop

// What `report<Word>` is in an area whose source path is `Source`.
template <Word W, const char *Source> struct reporter {
    template <class... Args> void operator()(text<std::type_identity_t<Args>...> message, Args... args) const
    {
        constexpr const gate &g = gate_for<W>;
        if (console_open(g) || log_open(g)) [[unlikely]]
            emit<Args...>(g, Source, place{message.function, message.line}, message.format, args...);
    }

    template <class... Args> void operator()(place at, text<std::type_identity_t<Args>...> message, Args... args) const
    {
        message.function = at.function;
        message.line = at.line;
        operator()<Args...>(message, args...);
    }
};

} // namespace plx::diag
