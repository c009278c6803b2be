#ifndef SQLPREPARED_SRC_SQLNUMBER_H
#define SQLPREPARED_SRC_SQLNUMBER_H

// Numbers as texts, whatever the locale.

#include "SqlCommon.h"

#include <string_view>

namespace sql {

// Compared by address.
inline constexpr char is_no_number[] = "is no number";
inline constexpr char is_out_of_range[] = "is out of the variable's range";

// Reads a number in any form that SQL has, and nothing else; blanks around it are SQLite's own habit.
// Returns null, or why the text is none.
const char* readNumber(std::string_view text, integer& number);
const char* readNumber(std::string_view text, double& number);

// A number in digits; a real in as few as give it back when they are read, with a mark of a real.
class NumberText {
public:
    explicit NumberText(integer number);
    explicit NumberText(double real);
    NumberText(const NumberText&) = delete;
    NumberText& operator=(const NumberText&) = delete;

    std::string_view view() const
    {
        return std::string_view(_begin, _end - _begin);
    }

private:
    char _text[32];
    const char* _begin = _text;
    const char* _end = _text;
};

} // namespace sql

#endif
