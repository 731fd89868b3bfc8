// Commands as a server reads them: how many arguments, then each with its length.
//
// 1. A buffer is cleared, and keeps its memory.
// 2. Commands are built one behind the other: whole, or by their number of arguments and then one by one. What was
//    built in another buffer can be taken over as it is.
// 3. All of it leaves in one send; commands() tells how many answers will come.
#ifndef TQ_MOM_REDIS_COMMAND_HPP
#define TQ_MOM_REDIS_COMMAND_HPP

#include <charconv>
#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>

namespace mom {

class command_buffer {
  public:
    void clear()
    {
        bytes_.clear();
        commands_ = 0;
        answer_limit_ = SIZE_MAX;
    }
    std::string_view bytes() const { return bytes_; }
    /// How many answers will come.
    size_t commands() const { return commands_; }
    /// How many bytes of answers are taken in before the exchange is given up as TQ_MOM_CORRUPT.
    size_t answer_limit() const { return answer_limit_; }
    void limit_answers(size_t bytes) { answer_limit_ = bytes; }

    /// Starts a command of this many arguments, its name among them.
    void begin(size_t arguments)
    {
        head('*', arguments);
        ++commands_;
    }
    command_buffer &add(std::string_view argument)
    {
        head('$', argument.size());
        bytes_.append(argument);
        bytes_.append("\r\n", 2);
        return *this;
    }
    /// An argument of two parts.
    command_buffer &add(std::string_view first, std::string_view second)
    {
        head('$', first.size() + second.size());
        bytes_.append(first).append(second);
        bytes_.append("\r\n", 2);
        return *this;
    }
    command_buffer &add(std::unsigned_integral auto number)
    {
        char digits[24];
        const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
        return add(std::string_view(digits, static_cast<size_t>(end - digits)));
    }
    template <typename... Arguments> void command(const Arguments &...arguments)
    {
        begin(sizeof...(arguments));
        (add(arguments), ...);
    }

    /// Arguments that were built before.
    command_buffer &add_built(std::string_view arguments)
    {
        bytes_.append(arguments);
        return *this;
    }
    /// Whole commands that were built before.
    void append_built(std::string_view commands, size_t count)
    {
        bytes_.append(commands);
        commands_ += count;
    }

  private:
    void head(char kind, size_t number)
    {
        char text[32] = {kind};
        char *end = std::to_chars(text + 1, text + 24, number).ptr;
        *end++ = '\r';
        *end++ = '\n';
        bytes_.append(text, static_cast<size_t>(end - text));
    }

    std::string bytes_;
    size_t commands_ = 0;
    size_t answer_limit_ = SIZE_MAX;
};

} // namespace mom

#endif
