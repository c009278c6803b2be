"""The mutants of a source: what it consists of, and what is changed in it."""

import bisect
import hashlib
import re

TOKEN = re.compile(r"""
    (?P<blank>\s+|//[^\n]*|/\*.*?\*/|\\\n)
  | (?P<string>"(?:\\.|[^"\\\n])*")
  | (?P<char>'(?:\\.|[^'\\\n])+')
  | (?P<number>\d(?:[eE][-+]|[\w.])*)
  | (?P<word>[A-Za-z_]\w*)
  | (?P<sign>\.\.\.|->|\+\+|--|&&|\|\||[-+*/%&|^=!<>]=|::|<<|>>|\#\#|.)""", re.S | re.X)
DIRECTIVE = re.compile(r"^#[ ]*(?:(define)[ ]+\w+(?:\([^)]*\))?|(?:[^\\\n]|\\.)*)", re.M | re.S)
OPENING, CLOSING = {"(": ")", "[": "]", "{": "}"}, {")", "]", "}"}


class Token:
    def __init__(self, kind, text, start):
        self.kind, self.text, self.start, self.end = kind, text, start, start + len(text)


def tokens_of(text):
    """All tokens but blanks, comments and directives; the bodies of macros are code."""
    tokens, place = [], 0
    while place < len(text):
        match = text[place] == "#" and DIRECTIVE.match(text, place)
        if not match or (place > 0 and text[place - 1] != "\n"):
            match = TOKEN.match(text, place)
            if match.lastgroup != "blank":
                tokens.append(Token(match.lastgroup, match.group(), place))
        place = match.end()
    return tokens


class Source:
    """A source file with its tokens, their brackets and the functions they stand in."""

    def __init__(self, name, text, library="", folder=""):
        self.name, self.text, self.library, self.folder = name, text, library, folder
        self.tokens = tokens_of(text)
        self.lines = [0] + [match.end() for match in re.finditer("\n", text)]
        self.partner = self.match_brackets()
        self.functions = list(self.find_functions())

    def match_brackets(self):
        partner, open_ones = {}, []
        for i, token in enumerate(self.tokens):
            if token.kind == "sign" and token.text in OPENING:
                open_ones.append(i)
            elif token.kind == "sign" and token.text in CLOSING:
                partner[i] = open_ones.pop()
                partner[partner[i]] = i
        return partner

    def find_functions(self):
        """(start, closing brace, name, type of the result): functions have their braces on lines of
        their own, nothing else has."""
        head = re.compile(r"^(?P<indent> *)(?!namespace|struct|class|#| )(?P<type>[\w:&*<> ]*?[ &*])?"
                          r"(?P<name>[\w:~=]+)\((?:[^;{}]|\{\})*?^(?P=indent)\{$", re.M)
        for match in head.finditer(self.text):
            closing = self.text.index(f"\n{match['indent']}}}", match.end()) + 1
            kind = re.sub(r"\b(inline|static|constexpr) ", "", match["type"] or "").strip()
            yield match.start(), closing + len(match["indent"]), match["name"], kind
        for match in re.finditer(r"^#define (\w+)(?:.*\\\n)*.*$", self.text, re.M):
            yield match.start(), match.end(), match[1], ""

    def function_at(self, place):
        for start, end, name, kind in self.functions:
            if start <= place < end:
                return name, kind
        return "", ""

    def digest_at(self, place):
        """Of the function at a place, or of the whole source."""
        texts = [self.text[start:end] for start, end, _, _ in self.functions if start <= place < end]
        return hashlib.sha256("".join(texts or [self.text]).encode()).hexdigest()

    def line_of(self, place):
        return bisect.bisect_right(self.lines, place)


# --- What is changed -----------------------------------------------------------------------------

OTHER_SIGNS = {
    "==": ["!="], "!=": ["=="], "<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="],
    ">=": [">", "<"], "&&": ["||"], "||": ["&&"], "+": ["-"], "-": ["+"], "*": ["/"], "/": ["*"],
    "&": ["|"], "|": ["&"], "++": ["--"], "--": ["++"], "+=": ["=", "-="], "-=": ["+="]}
SPACED = {"<", ">", "+", "-", "*", "/", "&", "|", "&&"}  # between operands, blanks around; else not
OTHER_WORDS = {"true": "false", "false": "true", "LOG_ERR": "LOG_DEBUG", "LOG_DEBUG": "LOG_ERR",
               "SQLITE_OK": "SQLITE_ERROR", "SQLITE_ERROR": "SQLITE_OK",
               "SQLITE_ROW": "SQLITE_DONE", "SQLITE_DONE": "SQLITE_ROW"}
for ring in (["type_int", "type_text", "type_float", "type_bool", "type_time"],
             ["flag_none", "flag_not_null", "flag_primary_key", "flag_unique"],
             ["SQLITE_OPEN_READONLY", "SQLITE_OPEN_READWRITE", "SQLITE_OPEN_CREATE"]):
    OTHER_WORDS.update(zip(ring, ring[1:] + ring[:1]))
DECLARATION = re.compile(r"(const|constexpr|static|struct|typedef|extern|using|char|friend)\b"
                         r"|[\w:]+(<.*>)?( |[*&]+ |[*&]+ const )\w+( =|\(|;|\[|\{)", re.S)
NO_CALLS = {"if", "for", "while", "switch", "catch", "return", "sizeof", "defined"}


class Mutant:
    def __init__(self, source, start, end, replacement):
        self.source, self.start, self.end, self.replacement = source, start, end, replacement
        self.file, self.line = source.name, source.line_of(start)
        self.function = source.function_at(start)[0]
        self.digest = source.digest_at(start)
        first = source.text.rfind("\n", 0, start) + 1
        last = source.text.find("\n", end)
        text = source.text
        self.before = squeeze(text[first:last])
        self.after = squeeze(text[first:start] + replacement + text[end:last])
        self.nth = 0  # of those that read the same

    def text(self):
        return self.source.text[:self.start] + self.replacement + self.source.text[self.end:]

    def key(self):
        return self.file, self.function, self.before, self.after, self.nth

    def __str__(self):
        return (f"{self.file}:{self.line} {self.function}\n"
                f"  - {self.before}\n  + {self.after}")


def squeeze(text):
    """As one line, so that neither indentation nor line breaks matter."""
    return " ".join(text.replace("\\\n", " ").split())


class Mutations:
    """All changes of one source as (start, end, replacement)."""

    def __init__(self, source):
        self.source, self.text, self.tokens = source, source.text, source.tokens
        self.partner = source.partner

    def all(self):
        changes = set(self.statements())
        for i, token in enumerate(self.tokens):
            anywhere = (self.numbers, self.words)
            inside = (self.texts, self.signs, self.conditions, self.ternaries, self.operands, self.arguments,
                      self.casts, self.elses, self.labels)
            in_function = self.source.function_at(token.start)[0]
            for method in (*anywhere, *inside) if in_function else anywhere:
                changes.update(method(i, token))
        return sorted(changes)

    def token(self, i):
        return self.tokens[i].text if 0 <= i < len(self.tokens) else ""

    def between(self, first, last):
        """The text from one token to before another."""
        return self.text[self.tokens[first].start:self.tokens[last - 1].end]

    def replaced(self, first, last, replacement):
        return self.tokens[first].start, self.tokens[last - 1].end, replacement

    def numbers(self, i, token):
        if token.kind == "number" and re.search(r"\.|^\d+e", token.text):
            yield token.start, token.end, "1.0"
        elif token.kind == "number":
            number = token.text.rstrip("uUlL")
            suffix = token.text[len(number):]
            value = int(number, 8 if re.fullmatch("0[0-7]+", number) else 0)
            yield token.start, token.end, f"{value + 1}{suffix}"
            yield token.start, token.end, f"({value - 1}{suffix})"

    def texts(self, i, token):
        if token.kind == "char":
            yield token.start, token.end, "'x'"
        if token.kind != "string":
            return
        pieces = re.findall(r"\\.|%\w+|[^\\]", token.text[1:-1])
        variants = [pieces[1:], pieces[:-1]] if pieces else [["x"]]
        letters = [n for n, piece in enumerate(pieces) if re.fullmatch(r"\w", piece)]
        if letters:
            middle = letters[len(letters) // 2]
            variants.append(pieces[:middle] + [pieces[middle].swapcase()] + pieces[middle + 1:])
        for variant in variants:
            yield token.start, token.end, '"' + "".join(variant) + '"'

    def words(self, i, token):
        if token.text in OTHER_WORDS and self.token(i - 1) not in ("case", "define") \
                and self.token(i - 2) != "RC_NAME":
            yield token.start, token.end, OTHER_WORDS[token.text]

    def signs(self, i, token):
        if token.kind != "sign" or self.token(i - 1) == "operator":
            return
        spaced = self.text[token.start - 1].isspace() and self.text[token.end].isspace()
        if token.text == "!" or (token.text == "-" and not spaced):
            yield token.start, token.end, ""
        elif token.text not in SPACED or spaced:
            joins = token.text == "+" and '"' in self.text[self.text.rfind(";", 0, token.start):
                                                           self.text.find(";", token.start)]
            for other in [] if joins else OTHER_SIGNS.get(token.text, []):
                yield token.start, token.end, other

    def conditions(self, i, token):
        if token.text not in ("if", "while", "for") or self.token(i + 1) != "(":
            return
        first, last = i + 2, self.partner[i + 1]
        if token.text == "for":
            stops = [n for n in range(first, last) if self.token(n) == ";"]
            if stops:
                yield self.replaced(stops[0] + 1, stops[1], "false")
            return
        condition = self.between(first, last)
        declaration = condition + "; " if DECLARATION.match(condition) else ""
        yield self.replaced(first, last, declaration + "false")
        if token.text == "if":
            yield self.replaced(first, last, declaration + "true")

    def extent(self, i, step, stops):
        """The token at which an operand beside token i ends, brackets taken whole."""
        i += step
        while self.token(i) not in stops:
            if i in self.partner:
                if (self.partner[i] - i) * step < 0:
                    return i
                i = self.partner[i]
            i += step
        return i

    def ternaries(self, i, token):
        if token.text != "?":
            return
        colon = self.extent(i, 1, {":"})
        end = self.extent(colon, 1, {";", ","})
        first, second = self.between(i + 1, colon), self.between(colon + 1, end)
        for one, other in ((second, first), (first, first), (second, second)):
            yield self.replaced(i + 1, end, f"{one} : {other}")

    def operands(self, i, token):
        if token.text not in ("&&", "||") or not self.text[token.start - 1].isspace():
            return
        stops = {"&&", "||", ",", ";", "?", ":", "return", "="}
        first, last = self.extent(i, -1, stops) + 1, self.extent(i, 1, stops)
        yield self.replaced(first, i + 1, "")
        yield self.replaced(i, last, "")

    def arguments(self, i, token):
        if token.text != "(" or self.tokens[i - 1].kind != "word" or self.token(i - 1) in NO_CALLS \
                or self.source.function_at(token.start)[0].split("::")[-1] == self.token(i - 1):
            return
        starts = [i + 1]
        end = self.partner[i]
        while self.extent(starts[-1] - 1, 1, {","}) < end:
            starts.append(self.extent(starts[-1] - 1, 1, {","}) + 1)
        starts.append(end + 1)
        for one, other, after in zip(starts, starts[1:], starts[2:]):
            first, second = self.between(one, other - 1), self.between(other, after - 1)
            if not first.startswith('"') and not second.startswith('"'): # would not compile
                yield self.replaced(one, after - 1, f"{second}, {first}")

    def casts(self, i, token):
        if token.text == "static_cast":
            opening = next(n for n in range(i, len(self.tokens)) if self.token(n) == "(")
            # A size is converted without it too.
            if not self.between(opening, self.partner[opening]).endswith(".size()"):
                yield self.replaced(i, opening, "")

    def elses(self, i, token):
        if token.text != "else":
            return
        yield token.start, token.end, ""
        end = i + 1
        while self.token(end) not in (";", "{"):
            end = self.partner.get(end, end) + 1
        end = self.partner[end] if self.token(end) == "{" else end
        yield self.replaced(i, end + 1, "")

    def labels(self, i, token):
        if token.text == "case":
            yield self.replaced(i, self.extent(i, 1, {":"}) + 1, "")

    def statements(self):
        """Statements left out, and results changed."""
        begin = 0
        for i, token in enumerate(self.tokens):
            closes_head = (token.text == ")" and i in self.partner
                           and self.token(self.partner[i] - 1) in ("if", "for", "while", "switch"))
            if token.text == ";" and self.at_block_level(i):
                yield from self.statement(begin, i)
            ends_label = token.text == ":" and self.token(begin) in ("case", "default")
            if token.text in ("{", "}", ";", "else", "do") or closes_head or ends_label:
                begin = i + 1

    def at_block_level(self, i):
        """Not inside a head such as that of a for."""
        while i > 0:
            i -= 1
            if self.token(i) in ("(", "["):
                return False
            if self.token(i) == "{":
                return True
            if i in self.partner and self.partner[i] < i:
                i = self.partner[i]
        return True

    def statement(self, first, end):
        if first >= end or not self.source.function_at(self.tokens[first].start)[0]:
            return
        text = self.between(first, end) + ";"
        is_last = any(self.tokens[end + 1].start == function[1] for function in self.source.functions)
        is_return = self.token(first) == "return"
        if not (is_return and is_last) and not (DECLARATION.match(text) and not is_return):
            yield self.replaced(first, end + 1, "{}")
        if is_return and end > first + 1:
            for result in self.other_results(first, self.between(first + 1, end)):
                yield self.replaced(first + 1, end, result)

    def other_results(self, i, result):
        kind = self.source.function_at(self.tokens[i].start)[1]
        if kind == "bool" and result not in ("true", "false"):
            return [f"!({result})"]
        if kind in ("string", "const string"):
            return ['"x"'] if result == "string()" else ["string()"]
        if kind.endswith("*") and kind != "const char*" and result != "nullptr":
            return ["nullptr"]
        if kind in ("int", "integer", "double", "time_t", "Time") and not result.isdigit():
            return [f"{result} + 1"]
        return []


def mutants_of(source):
    counts = {}
    for start, end, replacement in Mutations(source).all():
        mutant = Mutant(source, start, end, replacement)
        if mutant.before != mutant.after:
            mutant.nth = counts.get(mutant.key(), 0)
            counts[mutant.key()] = mutant.nth + 1
            yield mutant
