#include "SqlText.h"

namespace sql {

void appendQuoted(string& out, const string& text)
{
    string::size_type start = 0;
    for (string::size_type quote = text.find('\''); quote != string::npos;
         quote = text.find('\'', start)) {
        out.append(text, start, quote - start).append("''");
        start = quote + 1;
    }
    out.append(text, start);
}

} // namespace sql
