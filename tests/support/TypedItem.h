#ifndef SQLWRAPPER_TESTS_SUPPORT_TYPEDITEM_H
#define SQLWRAPPER_TESTS_SUPPORT_TYPEDITEM_H

// A struct with a member of every type that a typed table holds.

#include "SqlMapping.h"

#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <limits>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace test {

enum class Level : short { lowest = -32768, none = 0, highest = 32767 };
enum class Switch : bool { off, on };

struct Item {
    using Instant = std::chrono::system_clock::time_point;
    using Block = std::vector<unsigned char>;
    using Four = std::array<unsigned char, 4>;

    sql::integer id = 0;
    std::string code;

    signed char small = 0;
    unsigned char byte = 0;
    short half = 0;
    unsigned short positiveHalf = 0;
    int whole = 0;
    unsigned positive = 0;
    sql::integer big = 0;
    unsigned long long natural = 0;
    bool truth = false;
    Level level = Level::none;
    Switch position = Switch::off;
    double real = 0;
    float single = 0;
    double loose = 0; // in a column that holds it as it is
    std::string text;
    Block block;
    Four four{};
    sql::Time time = sql::Time(0);
    Instant at;
    Instant moment; // in milliseconds
    std::optional<int> maybeWhole;
    std::optional<bool> maybeTruth;
    std::optional<Level> maybeLevel;
    std::optional<double> maybeReal;
    std::optional<float> maybeSingle;
    std::optional<std::string> maybeText;
    std::optional<Block> maybeBlock;
    std::optional<Four> maybeFour;
    std::optional<sql::Time> maybeTime;
    std::optional<Instant> maybeAt;
    std::optional<Instant> maybeMoment; // in milliseconds
};

// Calls `use` with each member behind the keys, and with a `milliseconds` where one is held in them.
template <typename AnyItem, typename Use> void forMembers(AnyItem& item, const Use& use)
{
    use(item.small);
    use(item.byte);
    use(item.half);
    use(item.positiveHalf);
    use(item.whole);
    use(item.positive);
    use(item.big);
    use(item.natural);
    use(item.truth);
    use(item.level);
    use(item.position);
    use(item.real);
    use(item.single);
    use(item.loose);
    use(item.text);
    use(item.block);
    use(item.four);
    use(item.time);
    use(item.at);
    use(item.moment, sql::milliseconds);
    use(item.maybeWhole);
    use(item.maybeTruth);
    use(item.maybeLevel);
    use(item.maybeReal);
    use(item.maybeSingle);
    use(item.maybeText);
    use(item.maybeBlock);
    use(item.maybeFour);
    use(item.maybeTime);
    use(item.maybeAt);
    use(item.maybeMoment, sql::milliseconds);
}

// A mapping of all members, the two for keys as `keys` has them.
template <typename... Keys> constexpr auto itemMapping(const Keys&... keys)
{
    return sql::mapping<Item>(
        "item", keys..., sql::column<&Item::small>("small"), sql::column<&Item::byte>("byte"),
        sql::column<&Item::half>("half"), sql::column<&Item::positiveHalf>("positive_half"),
        sql::column<&Item::whole>("whole"), sql::column<&Item::positive>("positive"),
        sql::column<&Item::big>("big"), sql::column<&Item::natural>("natural"),
        sql::column<&Item::truth>("truth"), sql::column<&Item::level>("level"),
        sql::column<&Item::position>("position"), sql::column<&Item::real>("real"),
        sql::column<&Item::single>("single"),
        sql::column<&Item::loose>("loose", sql::storedAs("BLOB")), sql::column<&Item::text>("text"),
        sql::column<&Item::block>("block"), sql::column<&Item::four>("four"),
        sql::column<&Item::time>("time"), sql::column<&Item::at>("at"),
        sql::column<&Item::moment>("moment", sql::milliseconds),
        sql::column<&Item::maybeWhole>("maybe_whole"),
        sql::column<&Item::maybeTruth>("maybe_truth"),
        sql::column<&Item::maybeLevel>("maybe_level"), sql::column<&Item::maybeReal>("maybe_real"),
        sql::column<&Item::maybeSingle>("maybe_single"),
        sql::column<&Item::maybeText>("maybe_text"), sql::column<&Item::maybeBlock>("maybe_block"),
        sql::column<&Item::maybeFour>("maybe_four"), sql::column<&Item::maybeTime>("maybe_time"),
        sql::column<&Item::maybeAt>("maybe_at"),
        sql::column<&Item::maybeMoment>("maybe_moment", sql::milliseconds));
}

inline constexpr auto item_with_chosen_key = itemMapping(sql::autoKey<&Item::id>("id"),
                                                         sql::column<&Item::code>("code"));
inline constexpr auto item_with_given_key = itemMapping(sql::key<&Item::id>("id"),
                                                        sql::column<&Item::code>("code"));
inline constexpr auto item_with_text_key = itemMapping(sql::column<&Item::id>("id"),
                                                       sql::key<&Item::code>("code"));
inline constexpr auto item_with_two_keys = itemMapping(sql::key<&Item::id>("id"),
                                                       sql::key<&Item::code>("code"));
inline constexpr auto item_without_key = itemMapping(sql::column<&Item::id>("id"),
                                                     sql::column<&Item::code>("code"));
inline constexpr auto item_without_rowid = itemMapping(
    sql::column<&Item::id>("id"), sql::key<&Item::code>("code"), sql::without_rowid);

// The cells of an item as typedRows() has them; a time that its column cannot hold has a "!".
class CellsOfItem {
public:
    explicit CellsOfItem(const Item& item)
    {
        (*this)(item.id);
        (*this)(item.code);
        forMembers(item, *this);
    }

    const std::string& text() const
    {
        return _text;
    }

    template <typename T> void operator()(const T& member) const
    {
        add(cell(member));
    }
    void operator()(const Item::Instant& at, sql::Milliseconds) const
    {
        add(instant<std::chrono::milliseconds>(at));
    }
    void operator()(const std::optional<Item::Instant>& at, sql::Milliseconds) const
    {
        add(at ? instant<std::chrono::milliseconds>(*at) : "null");
    }

private:
    void add(const std::string& cell) const
    {
        _text += (_text.empty() ? "" : "|") + cell;
    }

    template <typename Unit> static std::string instant(const Item::Instant& at)
    {
        const auto count = std::chrono::floor<Unit>(at.time_since_epoch());
        return "integer " + std::to_string(count.count())
               + (count == at.time_since_epoch() ? "" : "!");
    }
    static std::string real(double number)
    {
        char digits[32];
        return "real " + std::string(digits, std::to_chars(digits, std::end(digits), number).ptr);
    }
    template <typename Bytes> static std::string blob(const Bytes& bytes)
    {
        static const char digits[] = "0123456789ABCDEF";
        std::string text = "blob ";
        for (const unsigned char byte : bytes) {
            text += digits[byte / 16];
            text += digits[byte % 16];
        }
        return text;
    }

    template <typename T> static std::string cell(const T& number)
    {
        if constexpr (std::is_enum_v<T>)
            return cell(static_cast<std::underlying_type_t<T>>(number));
        else if constexpr (std::is_floating_point_v<T>)
            return real(number);
        else
            return "integer " + std::to_string(number);
    }
    static std::string cell(const std::string& text)
    {
        return "text " + text;
    }
    static std::string cell(const Item::Block& block)
    {
        return blob(block);
    }
    static std::string cell(const Item::Four& four)
    {
        return blob(four);
    }
    static std::string cell(const sql::Time& time)
    {
        return "integer " + std::to_string(time.asInteger());
    }
    static std::string cell(const Item::Instant& at)
    {
        return instant<std::chrono::seconds>(at);
    }
    template <typename T> static std::string cell(const std::optional<T>& value)
    {
        return value ? cell(*value) : "null";
    }

    mutable std::string _text;
};

inline std::string cellsOf(const Item& item)
{
    return CellsOfItem(item).text();
}

// The item as its row holds it: times in whole units, and no -0.0 in a column of reals.
inline Item asStored(Item item)
{
    using std::chrono::floor;
    item.real += 0.0;
    item.single += 0.0F;
    item.at = floor<std::chrono::seconds>(item.at);
    item.moment = floor<std::chrono::milliseconds>(item.moment);
    if (item.maybeReal)
        *item.maybeReal += 0.0;
    if (item.maybeSingle)
        *item.maybeSingle += 0.0F;
    if (item.maybeAt)
        item.maybeAt = floor<std::chrono::seconds>(*item.maybeAt);
    if (item.maybeMoment)
        item.maybeMoment = floor<std::chrono::milliseconds>(*item.maybeMoment);
    return item;
}

// Why an item cannot be stored, or nothing.
inline std::string whyUnfit(const Item& item)
{
    const std::string no_number = " is not a number";
    if (item.natural > std::numeric_limits<sql::integer>::max())
        return "column natural is above the range of integers";
    if (std::isnan(item.real))
        return "column real" + no_number;
    if (std::isnan(item.single))
        return "column single" + no_number;
    if (std::isnan(item.loose))
        return "column loose" + no_number;
    if (item.maybeReal && std::isnan(*item.maybeReal))
        return "column maybe_real" + no_number;
    if (item.maybeSingle && std::isnan(*item.maybeSingle))
        return "column maybe_single" + no_number;
    return "";
}

// Fills members with any values, often those at the edges of their types. A source has
// below(count), bits() and text().
template <typename Source> class AnyItem {
public:
    explicit AnyItem(Source& source) : _source(source)
    {
    }

    Item operator()()
    {
        Item item;
        forMembers(item, *this);
        return item;
    }

    template <typename T> void operator()(T& member) const
    {
        if constexpr (std::is_enum_v<T>)
            member = static_cast<T>(number<std::underlying_type_t<T>>());
        else if constexpr (std::is_floating_point_v<T>)
            member = real<T>();
        else
            member = number<T>();
    }
    void operator()(std::string& text) const
    {
        text = _source.text();
    }
    void operator()(Item::Block& block) const
    {
        const std::string bytes = _source.text();
        block.assign(bytes.begin(), bytes.end());
    }
    void operator()(Item::Four& four) const
    {
        for (unsigned char& byte : four)
            byte = number<unsigned char>();
    }
    void operator()(sql::Time& time) const
    {
        time = sql::Time(number<time_t>());
    }
    void operator()(Item::Instant& at) const
    {
        // Its lowest second, and the lowest millisecond, are not whole.
        const auto lowest = std::chrono::ceil<std::chrono::seconds>(Item::Instant::min());
        const Item::Instant any{Item::Instant::duration(number<sql::integer>())};
        at = any < lowest ? Item::Instant(lowest) : any;
    }
    template <typename T> void operator()(std::optional<T>& value) const
    {
        if (_source.below(3) == 0)
            value.reset();
        else
            (*this)(value.emplace());
    }
    template <typename T> void operator()(T& time, sql::Milliseconds) const
    {
        (*this)(time);
    }

private:
    template <typename T> T number() const
    {
        using Limits = std::numeric_limits<T>;
        if constexpr (std::is_same_v<T, bool>) {
            return _source.below(2) == 1;
        } else {
            switch (_source.below(5)) {
            case 0:
                return Limits::min();
            case 1: // an integer too high is rare
                return static_cast<T>(sizeof(T) == 8 && _source.below(30) != 0
                                          ? std::numeric_limits<sql::integer>::max()
                                          : Limits::max());
            case 2:
                return static_cast<T>(_source.bits() >> (sizeof(T) == 8 ? 1 : 0));
            default:
                return static_cast<T>(static_cast<int>(_source.below(7))
                                      - (Limits::min() < 0 ? 3 : 0));
            }
        }
    }
    template <typename T> T real() const
    {
        using Limits = std::numeric_limits<T>;
        static constexpr T edges[] = {0,
                                      -0.0,
                                      Limits::denorm_min(),
                                      -Limits::denorm_min(),
                                      Limits::min(),
                                      Limits::max(),
                                      Limits::lowest(),
                                      Limits::infinity(),
                                      -Limits::infinity(),
                                      Limits::epsilon(),
                                      T(0.1),
                                      T(9007199254740993.0),
                                      T(9223372036854775808.0),
                                      T(-9223372036854775808.0)};
        switch (_source.below(3)) {
        case 0:
            return edges[_source.below(std::size(edges))];
        case 1:
            return _source.below(60) == 0 ? Limits::quiet_NaN()
                                          : static_cast<T>(static_cast<int>(_source.below(7)) - 3);
        default:
            return std::ldexp(static_cast<T>(static_cast<sql::integer>(_source.bits())),
                              static_cast<int>(_source.below(200)) - 150);
        }
    }

    Source& _source;
};

} // namespace test

#endif
