#ifndef SQLWRAPPER_FUZZ_CELL_H
#define SQLWRAPPER_FUZZ_CELL_H

// What a cell has to hold and to answer: sql::Value told once more, in the plainest way.

#include "Fuzz.h"
#include "PlainNumbers.h"
#include "SqlCommon.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

namespace fuzz {

// The events are those of the DEBUG3 level.
inline std::string typeName(std::int32_t type, Events& events)
{
    static const char* const names[] = {"integer", "text", "float", "bool", "time"};
    if (type >= 0 && type <= 4)
        return names[type];
    events.emplace_back("assert 'false'");
    return "undefined";
}

inline time_t madeTime(sql::integer seconds, Events& events)
{
    const time_t time = static_cast<time_t>(seconds);
    const char* const text = std::ctime(&time);
    events.push_back("[DEBUG3] Time ctor: time = " + std::to_string(static_cast<long>(time))
                     + " = '" + (text != nullptr ? text : "(null)") + "'");
    return time;
}

inline std::string localText(time_t time, Events& events)
{
    struct tm local;
    if (::localtime_r(&time, &local) == nullptr) {
        events.emplace_back("[ERROR] Failed to convert calendar time to local time");
        return std::string();
    }
    char text[128];
    return std::string(text, std::strftime(text, sizeof text, "%d-%m-%Y %H:%M:%S, %a", &local));
}

struct Cell {
    std::int32_t type;
    bool isNull = true;
    std::string text;

    explicit Cell(std::int32_t ofType) : type(ofType)
    {
    }

    void set(const std::string& newText)
    {
        isNull = false;
        text = newText;
    }

    void setNull()
    {
        isNull = true;
        text.clear();
    }

    sql::integer asInteger() const
    {
        const char* at = text.c_str();
        at += std::strspn(at, " \t\n\v\f\r");
        const bool isNegative = *at == '-';
        if (*at == '-' || *at == '+')
            ++at;
        const std::uint64_t limit = (std::uint64_t{1} << 63) - (isNegative ? 0 : 1);
        std::uint64_t number = 0;
        for (; *at >= '0' && *at <= '9'; ++at) {
            const std::uint64_t digit = static_cast<std::uint64_t>(*at - '0');
            number = number > (limit - digit) / 10 ? limit : number * 10 + digit;
        }
        return static_cast<sql::integer>(isNegative ? 0 - number : number);
    }

    double asDouble() const
    {
        return test::readDouble(text);
    }

    bool asBool() const
    {
        return text == "1";
    }

    std::string asString(Events& events) const
    {
        return type == sql::type_time ? localText(madeTime(asInteger(), events), events) : text;
    }

    std::string toString(Events& events) const
    {
        return isNull ? "null" : asString(events);
    }

    std::string dump(bool withType, Events& events) const
    {
        const std::string content = toString(events);
        return withType ? content + " (" + typeName(type, events) + ")" : content;
    }

    std::string toSql(std::int32_t asked, Events& events) const
    {
        if (isNull)
            return "null";
        if (asked == sql::type_text)
            return test::quoted(asString(events));
        return type == sql::type_time ? std::to_string(asInteger()) : asString(events);
    }

    bool equals(const Cell& other, Events& events) const
    {
        if (isNull && other.isNull)
            return true;
        switch (type) {
        case sql::type_int:
            return asInteger() == other.asInteger();
        case sql::type_text:
            return asString(events) == other.asString(events);
        case sql::type_float:
            return asDouble() == other.asDouble();
        case sql::type_bool:
            return asBool() == other.asBool();
        case sql::type_time:
            madeTime(asInteger(), events);
            madeTime(other.asInteger(), events);
            return true;
        default:
            return false;
        }
    }
};

} // namespace fuzz

#endif
