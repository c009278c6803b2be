#include "Address.h"

#include <cctype>

namespace {

bool isHexDigit(char c)
{
    return std::isxdigit(static_cast<unsigned char>(c)) != 0;
}

char capital(char c)
{
    return static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
}

// The digits without their separators; empty when they are not grouped in one of the usual ways.
std::string ungrouped(const std::string& text)
{
    const std::size_t first = text.find_first_of(":-.");
    const char separator = first == std::string::npos ? '\0' : text[first];
    const std::size_t group = separator == '\0' ? text.size() : separator == '.' ? 4 : 2;

    std::string digits;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool betweenGroups = i % (group + 1) == group && i + 1 < text.size();
        if (betweenGroups ? text[i] != separator : !isHexDigit(text[i]))
            return std::string();
        if (!betweenGroups)
            digits += capital(text[i]);
    }
    return digits;
}

} // namespace

std::string addressDigits(const std::string& text)
{
    const std::string digits = ungrouped(text);
    return digits.size() == 12 ? digits : std::string();
}

std::string blockDigits(const std::string& text)
{
    const std::string digits = ungrouped(text);
    const bool isBlock = digits.size() == 6 || digits.size() == 7 || digits.size() == 9;
    return isBlock ? digits : std::string();
}
