#include "HostileTexts.h"

#include "Environment.h"

#include <cctype>
#include <cstdio>
#include <sstream>
#include <unordered_set>

namespace test {

namespace {

typedef std::vector<std::string> Texts;

// A literal with all its zero bytes but the last.
template <std::size_t size> std::string whole(const char (&literal)[size])
{
    return std::string(literal, size - 1);
}

std::string repeated(const std::string& piece, std::size_t length)
{
    std::string text;
    text.reserve(length + piece.size());
    while (text.size() < length)
        text += piece;
    return text;
}

// Texts with " ~ " or the end of a line between them, and others.
Texts split(const std::string& list, Texts others = {})
{
    Texts texts = std::move(others);
    std::istringstream lines(list);
    for (std::string line; std::getline(lines, line);) {
        line += " ~ ";
        std::size_t start = 0;
        for (std::size_t end = line.find(" ~ "); end != std::string::npos;
             end = line.find(" ~ ", start)) {
            if (end > start)
                texts.push_back(line.substr(start, end - start));
            start = end + 3;
        }
    }
    return texts;
}

const Texts quotes = split(R"(
'' ~ ''' ~ '''' ~ "" ~ """ ~ `` ~ [] ~ '"` ~ O'Brien ~ it''s ~ \\ ~ \' ~ \" ~ '\ ~ "\ ~ \0 ~ \n
' ' ~ '' '' ~ 'a' ~ "a" ~ `a` ~ [a] ~ 'a ~ a' ~ "a ~ a" ~ `a ~ [a ~ a] ~ x'00' ~ x'41' ~ X'4'
x'' ~ x' ~ '||' ~ ' || ' ~ '+' ~ ',' ~ ', ' ~ a'b"c`d ~ "'" ~ '"' ~ \\'\ ~ "product" ~ [name]
'id' ~ "id" ~ `id` ~ "code" ~ """id""")");

const Texts zero_bytes = {
    whole("\0\0"),        whole("a\0"),        whole("\0a"),
    whole("a\0b"),        whole("a\0\0b"),     whole("'\0'"),
    whole("\"\0\""),      whole("%\0s"),       whole("%s\0%n"),
    whole("1\0 2"),       whole("7\0"),        whole("1\0; drop table product"),
    whole("product\0x"),  whole("product\0"),  whole("id\0"),
    whole("tea\0tea"),    whole("id\0 = 1"),   whole("select 1\0; drop table product"),
    whole("' --\0'"),     whole("O'Brien\0'"), whole("\xEF\xBB\xBF\0"),
    whole(" \0 "),        whole("/* \0 */ 1"), whole("\"; drop table vendor; --\0"),
    whole("\0' or 1 --"), whole("null\0null"),
};

// In this order: bytes that only continue; the zero byte, a single quote and other characters,
// overlong; cut short, before a quote too; surrogates; beyond the last code point; five and six
// bytes; byte order marks; no characters; the replacement character; Latin-1.
const Texts broken_utf8 = split(
    "\x80 ~ \xBF\xBF ~ a\x80z ~ \xC0\x80 ~ \xE0\x80\x80 ~ \xF0\x80\x80\x80 ~ \xC0\xA7 ~ "
    "\xE0\x80\xA7 ~ \xF0\x80\x80\xA7 ~ \xC0\xA2 ~ \xC1\xBF ~ \xE0\x9F\xBF ~ \xF0\x8F\xBF\xBF ~ "
    "\xC3 ~ \xE2\x82 ~ \xF0\x9F\x92 ~ \xC3' ~ \xE2\x82' ~ \xF0\x9F\x92' ~ \xC3\" ~ \xE2\x82\" ~ "
    "\xED\xA0\x80 ~ \xED\xBF\xBF ~ \xED\xA0\xBD\xED\xB2\xA9 ~ \xF4\x90\x80\x80 ~ "
    "\xF8\x88\x80\x80\x80 ~ \xFC\x84\x80\x80\x80\x80 ~ \xFE\xFF ~ \xFF\xFE ~ \xEF\xBB\xBF ~ "
    "\xEF\xBB\xBFtea ~ tea\xEF\xBB\xBF ~ \xEF\xBF\xBE ~ \xEF\xBF\xBF ~ \xEF\xBF\xBD ~ caf\xE9 ~ "
    "\xFF\xFF\xFF\xFF");

// In this order: letters, composed and not; tea and a cup of it; written from right to left; blanks
// and line ends that are none to the C library; what looks like quotes, and like digits; the last
// code point; letters whose case depends on the language.
const Texts sound_utf8 = split(
    "caf\xC3\xA9 ~ cafe\xCC\x81 ~ \xE8\x8C\xB6 ~ \xF0\x9F\x8D\xB5 ~ "
    "\xE2\x80\xAE(aet)\xE2\x80\xAC ~ \xE2\x80\x8B ~ \xC2\xA0 ~ \xE3\x80\x80 ~ \xE2\x80\xA8 ~ "
    "\xC2\x85 ~ \xE2\x80\x99 ~ \xE2\x80\x98 or 1 = 1 -- ~ \xCA\xBC ~ \xEF\xBC\x87 ~ "
    "\xD9\xA1\xD9\xA2 ~ \xEF\xBC\x91 ~ \xF4\x8F\xBF\xBF ~ \xC4\xB0I\xC4\xB1i ~ \xC3\x9F ~ "
    "a\xCC\x80\xCC\x81\xCC\x82\xCC\x83");

const Texts conversions = split(
    R"(
%s ~ %n ~ %d ~ %i ~ %u ~ %x ~ %p ~ %c ~ %f ~ %e ~ %g ~ %a ~ %o ~ %% ~ %5 ~ %*d ~ %.*s ~ %1$s
%2$n ~ %hhn ~ %hn ~ %ln ~ %lln ~ %zn ~ %ls ~ %S ~ %C ~ %m ~ %'d ~ %L ~ %q ~ %Q ~ %w ~ %z ~ 100%
%s%s%s%s%s%s ~ %n%n%n ~ %99999d ~ %.99999f ~ %-*.*s ~ %999999999s ~ %2147483648d ~ %#0+- s
stmt='%s' ~ a% ~ {} ~ {0} ~ $(reboot) ~ `reboot` ~ ${PATH} ~ $PATH ~ && ~ | cat ~ <script>
&quot;)",
    {"%s:%d (%s) - ", "[ERROR] %s:%d (%s) - ", "%\n", "%\xFF", "\x1B[2J", "\x1B]0;tea\x07"});

const Texts statements = split(R"(
; drop table product ~ ; drop table product; -- ~ '; drop table product; --
"; drop table product; -- ~ "; delete from product; -- ~ " or 1 = 1 -- ~ " or "" = "
" union select * from product -- ~ " limit 0 -- ~ "; select 1; select 2, 3; --
"; begin; delete from product; -- ~ "; update product set name = "x ~ "; no such statement; --
' or '1' = '1 ~ ' or 1 = 1 -- ~ ' or 1 = 1 /* ~ ') or ('1' = '1 ~ '), (99, 'more', 9.9); --
1); drop table product; -- ~ 1); delete from product; -- ~ 1), (99, 'more', 9.9
1, name = 'changed' ~ 1 or 1 = 1 ~ 1 = 1 ~ 1 = 0 ~ id = 1 ~ id in (1, 2)
id = 1; drop table product ~ id = 1 union select 9, sql, null from sqlite_master
1 = 0 union all select 9, 'x', 'y' ~ 1 union select 1, 2 ~ (select max(id) from product)
(select name, price from product) ~ exists (select 1 from product) ~ name like '%e%'
name glob '[a-' ~ name = "tea" ~ name is null ~ not null ~ id ~ ID ~ name ~ price ~ code ~ rowid
oid ~ _rowid_ ~ * ~ id desc ~ name collate nocase ~ name collate no_such_collation ~ name desc, id
id limit 1 ~ id limit 1 offset 1 ~ id limit -1 ~ 1 desc limit 1; delete from product ~ 4 ~ 99
product ~ PRODUCT ~ vendor ~ product, vendor ~ product as p ~ main.product ~ temp.product
no_such_schema.product ~ product; drop table vendor ~ product where id = 1 -- ~ product --
product /* ~ (select 1 as id) ~ sqlite_master ~ sqlite_sequence ~ sqlite_tea
x (id integer primary key); drop table product; -- ~ x as select * from product --
if not exists product ~ select ~ table ~ order by ~ primary key ~ a b c ~ a, b ~ a integer, b
a text check (a > 1), b ~ a-b ~ a.b ~ a(b) ~ a) ~ ) ~ ( ~ () ~ ;; ~ ; ; ~ -- ~ -- x ~ /* ~ */
/**/ ~ /* x */ 1 ~ /* 1 ~ ? ~ ?1 ~ ?32767 ~ ?99999 ~ :a ~ @a ~ $a ~ select 5 ~ select -3
select 1, 2 ~ select null ~ select 'tea' ~ select 2147483648 ~ select 4294967295
select id from product ~ select * from product ~ select id, name from product order by id desc
select *, * from product ~ select 1 where 0 ~ select 1; ~ select 1; select 2
select 1; no such statement ~ select count(*) from product ~ select no_such_column from product
select abs(-9223372036854775807 - 1) ~ select json('{') ~ select load_extension('tea')
select zeroblob(1000) ~ select 'a' || char(0) || 'b' ~ select 1 from product, product, product
values (1), (2)
with n(i) as (select 1 union all select i + 1 from n where i < 100) select sum(i) from n
insert into product values (null, 'new', 1) ~ insert into product values (1, 'again', 1)
update product set price = 1 ~ delete from product ~ drop table product ~ drop table no_such_table
alter table product rename to goods ~ create table product (id) ~ create table t (a, b, c)
create temp table product (a) ~ create view v as select * from product
create index i on product (name)
create trigger g after insert on product begin delete from vendor; end
create virtual table t using no_such_module ~ replace into product values (1, 'other', 0) ~ begin
begin; delete from product ~ begin exclusive ~ commit ~ rollback ~ savepoint s ~ release s
attach ':memory:' as other ~ detach main ~ vacuum ~ analyze ~ reindex
explain query plan select * from product ~ pragma user_version ~ pragma user_version = 5
pragma user_version = -5 ~ pragma table_info(product)
pragma empty_result_callbacks = 1; select 1 where 0 ~ pragma foreign_keys = 1
pragma full_column_names = 1 ~ pragma journal_mode = off
pragma writable_schema = 1; delete from sqlite_master; select 1
pragma query_only = 1; delete from product ~ pragma no_such_pragma ~ 1 between
case when 1 then 2 ~ cast(1 as ~ 1 = = 1 ~ = 1 ~ 1 = ~ > 0 ~ is ~ and 1 ~ or 1 ~ 1 where 1
1 order by id ~ 1 group by name ~ 1 having 1 ~ 1 || 2 ~ 1 << 63 ~ 1 / 0 ~ match ~ name match 'tea'
name regexp 'tea' ~ raise(abort, 'tea') ~ current_timestamp = 1 ~ x'4142' = name ~ 1 -- %s
select '%n%s' ~ select "%n%s" ~ no such %s statement ~ a "quoted" 'name')",
                               {"--\n1"});

const Texts numbers = split(R"(
-0 ~ +0 ~ 00 ~ -1 ~ +1 ~ 01 ~ 1.0 ~ 1e0 ~ -1.5 ~ 0.1 ~ 0.30000000000000004 ~ 3.50000000 ~ 2.5e-3
127 ~ 128 ~ 32768 ~ 65536 ~ 2147483647 ~ 2147483648 ~ -2147483648 ~ -2147483649 ~ 4294967295
4294967296 ~ 9007199254740993 ~ 9223372036854775806 ~ 9223372036854775807 ~ 9223372036854775808
-9223372036854775807 ~ -9223372036854775808 ~ -9223372036854775809 ~ 18446744073709551615
18446744073709551616 ~ 99999999999999999999999999999999999999 ~ 1e308 ~ 1e309 ~ -1e309 ~ 1e-400
1.7976931348623157e308 ~ 1.7976931348623159e308 ~ 2.2250738585072014e-308 ~ 4.9e-324 ~ 2.4e-324
0x7f ~ 0x7fffffffffffffff ~ 0xffffffffffffffff ~ 0x10000000000000000 ~ 0x ~ 0b1 ~ 1e ~ 1e+ ~ 1.
.5 ~ .. ~ --1 ~ - 1 ~ -+1 ~ 1 2 ~ 1,5 ~ 1.234,5 ~ 1_000 ~ 1x ~ (1) ~ 1; ~ nan ~ NaN ~ -nan
nan(1) ~ inf ~ -inf ~ +inf ~ Infinity ~ null ~ NULL ~ true ~ false ~ TRUE ~ 1=1)",
                            {" 1", "1 ", "\n7", "7\t"});

const Texts blanks = split(R"(
a b ~ a  b ~ ../x ~ ../../../../etc/passwd ~ a/b ~ ./x ~ a/../b ~ /x ~ //x ~ x/ ~ ~ ~ ~root ~ -rf
:memory: ~ file:x ~ file:x?mode=memory ~ x?mode=ro ~ CON ~ a\b ~ C:\x ~ x-journal ~ x-wal)",
                           {"",     "  ",   "\t\t", "\r\n",   "\n\n", " \t\n\v\f\r", " a",
                            "a ",   " a ",  "a\n",  "\na",    "a\nb", "a\r\nb",      "a\tb",
                            "a\vb", "a\fb", "\x7F", "\b\b\b", "\r",   "a\rb"});

// Bytes within a text, in a long run each, otherwise one of many that are alike; and those that are
// no letters or digits on their own too.
void addBytes(Texts& texts)
{
    for (int byte = 0; byte < 256; ++byte) {
        const std::string alone(1, static_cast<char>(byte));
        const bool plain = byte >= 0x80 || std::isalnum(byte) != 0;
        if (!plain || longRun() || byte % 16 == 0)
            texts.push_back("x" + alone + "y");
        if (!plain)
            texts.push_back(alone);
    }
}

// At the sizes of buffers, and far beyond.
void addLongTexts(Texts& texts)
{
    for (const std::size_t length :
         {127, 128, 255, 256, 511, 512, 1023, 1024, 4095, 4096, 8191, 65536})
        texts.push_back(std::string(length, 'x'));
    for (const char* const piece :
         {"'", "\"", "%s", "%n", "\\", "\n", " ", "\xFF", "\xE2\x82\xAC", "9"})
        texts.push_back(repeated(piece, 5000));
    texts.push_back(repeated("(", 3000)); // deeper than SQLite parses
    texts.push_back(repeated("not ", 6000) + "1");
    texts.push_back(repeated("1 or ", 6000) + "1");
    texts.push_back(repeated("id, ", 9000) + "id");
    texts.push_back(repeated("select 1;", 9000));
    texts.push_back(repeated("-", 9000));
    texts.push_back(std::string(100000, 'x') + whole("\0y"));
    texts.push_back(repeated("%s'\"", 1 << 20));
    if (longRun()) {
        texts.push_back(std::string(1 << 20, 'x'));
        texts.push_back(std::string(8 << 20, '\''));
        texts.push_back(repeated("%n\" ", 8 << 20));
        texts.push_back(repeated("\xC3\xA9", 16 << 20));
    }
}

Texts allTexts()
{
    Texts texts;
    addBytes(texts);
    for (const Texts* const group : {&quotes, &zero_bytes, &broken_utf8, &sound_utf8, &conversions,
                                     &statements, &numbers, &blanks})
        texts.insert(texts.end(), group->begin(), group->end());
    addLongTexts(texts);

    Texts unique;
    std::unordered_set<std::string> known;
    for (std::string& text : texts) {
        if (known.insert(text).second)
            unique.push_back(std::move(text));
    }
    return unique;
}

} // namespace

const std::vector<std::string>& hostileTexts()
{
    static const Texts texts = allTexts();
    return texts;
}

std::string printable(const std::string& text)
{
    std::string start;
    for (const char byte : text.substr(0, 60)) {
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\x%02X", static_cast<unsigned>(byte) & 0xFF);
        start += byte >= ' ' && byte <= '~' ? std::string(1, byte) : escaped;
    }
    return start + " (" + std::to_string(text.size()) + " bytes)";
}

std::string shown(const std::string& text)
{
    return text.substr(0, text.find('\0'));
}

std::string quoted(const std::string& text)
{
    std::string literal = "'";
    for (const char byte : text)
        literal += byte == '\'' ? "''" : std::string(1, byte);
    return literal + "'";
}

} // namespace test
