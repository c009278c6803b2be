#include "Wire.h"

#include <algorithm>
#include <charconv>

namespace {

const std::string root = "fleet/";

constexpr std::size_t length_size = 4;

// Takes the text up to the next blank.
std::string_view takeWord(std::string_view& text)
{
    const std::string_view word = text.substr(0, text.find(' '));
    text.remove_prefix(std::min(word.size() + 1, text.size()));
    return word;
}

bool takeNumber(std::string_view& text, sql::integer& number)
{
    const std::string_view word = takeWord(text);
    const char* const end = word.data() + word.size();
    const auto read = std::from_chars(word.data(), end, number);
    return read.ec == std::errc() && read.ptr == end;
}

} // namespace

bool readTopic(std::string_view topic, std::string& device, std::string& what)
{
    if (topic.substr(0, root.size()) != root)
        return false;
    topic.remove_prefix(root.size());
    const std::size_t slash = topic.find('/');
    if (slash == 0 || slash == std::string_view::npos
        || topic.find('/', slash + 1) != std::string_view::npos)
        return false;
    device = topic.substr(0, slash);
    what = topic.substr(slash + 1);
    return true;
}

std::string topicOf(const std::string& device, const std::string& what)
{
    return root + device + '/' + what;
}

std::string packSet(std::string_view header, std::string_view bytes)
{
    std::string payload;
    payload.reserve(length_size + header.size() + bytes.size());
    for (std::size_t i = 0; i < length_size; ++i)
        payload += static_cast<char>(header.size() >> 8 * i & 0xFF);
    return payload.append(header).append(bytes);
}

bool unpackSet(std::string_view payload, std::string_view& header, std::string_view& bytes)
{
    if (payload.size() < length_size)
        return false;
    std::size_t size = 0;
    for (std::size_t i = 0; i < length_size; ++i)
        size |= static_cast<std::size_t>(static_cast<unsigned char>(payload[i])) << 8 * i;
    payload.remove_prefix(length_size);
    if (size > payload.size())
        return false;
    header = payload.substr(0, size);
    bytes = payload.substr(size);
    return true;
}

std::string packAnswer(const Answer& answer)
{
    return (answer.isStored ? "stored " : "refused ") + std::to_string(answer.last.incarnation)
           + ' ' + std::to_string(answer.last.number)
           + (answer.isStored ? "" : " " + answer.reason);
}

bool unpackAnswer(std::string_view payload, Answer& answer)
{
    const std::string_view word = takeWord(payload);
    answer.isStored = word == "stored";
    if ((!answer.isStored && word != "refused") || !takeNumber(payload, answer.last.incarnation)
        || !takeNumber(payload, answer.last.number))
        return false;
    answer.reason = payload;
    return true;
}
