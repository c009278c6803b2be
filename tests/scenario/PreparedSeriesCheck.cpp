// Does to tables of a file what it reads, a line for each operation, and writes what came of it: see
// prepared_series_test.py. Texts are told by their bytes in hexadecimal digits behind an x.

#include "SqlPreparedTable.h"

#include <cstdlib>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

sql::string textIn(const std::string& word)
{
    sql::string text;
    for (std::size_t i = 1; i + 1 < word.size(); i += 2)
        text += static_cast<char>(std::stoi(word.substr(i, 2), nullptr, 16));
    return text;
}

std::string wordFor(const sql::Value& cell)
{
    static const char digits[] = "0123456789abcdef";
    if (cell.isNull())
        return "-";
    std::string word = "x";
    for (const char letter : cell.asString())
        word += {digits[static_cast<unsigned char>(letter) / 16],
                 digits[static_cast<unsigned char>(letter) % 16]};
    return word;
}

// A table of a file, on a connection of its own.
struct Shelf {
    Shelf(const std::string& file, const std::string& name, const std::vector<sql::Field>& fields)
        : table(nullptr, name, sql::FieldSet(fields)), texts(textsOf(fields))
    {
        if (!database.open(file, sql::Database::access_read_write, false, 0)
            || !sql::runScript(database, "pragma synchronous = off"))
            std::exit(1);
    }

    static sql::FieldSet textsOf(std::vector<sql::Field> fields)
    {
        for (sql::Field& field : fields)
            field = sql::Field(field.getName(), sql::type_text, sql::flag_none);
        return sql::FieldSet(fields);
    }

    sql::Database database;
    sql::Table table;
    sql::FieldSet texts; // the columns, for cells as they are: times too
    sql::PreparedTable fast{database, table};
};

class Series {
public:
    // shelf FILE NAME {TYPE KEY NAME}...
    void open(std::istream& words)
    {
        words >> _file >> _name;
        _fields.clear();
        int type = 0;
        bool isKey = false;
        for (std::string name; words >> type >> isKey >> name;)
            _fields.emplace_back(textIn(name), static_cast<sql::field_type>(type),
                                 isKey ? sql::flag_primary_key : sql::flag_none);
        _shelf = std::make_unique<Shelf>(_file, textIn(_name), _fields);
    }

    void run(const std::string& operation, std::istream& words)
    {
        sql::PreparedTable& fast = _shelf->fast;
        if (operation == "add")
            tell(fast.addRecord(record(words)));
        else if (operation == "update")
            tell(fast.updateRecord(record(words)));
        else if (operation == "put")
            tell(fast.addOrUpdateRecord(record(words)));
        else if (operation == "bulk")
            addAll(words);
        else if (operation == "copy")
            copyTo(words);
        else if (operation == "rows")
            tellRows();
        else
            runByKey(operation, words);
    }

private:
    sql::Record record(std::istream& words) const
    {
        sql::Record made(*_shelf->table.fields());
        for (int i = 0; i < made.columnCount(); ++i) {
            std::string word;
            words >> word;
            if (word != "-")
                made.setString(i, textIn(word));
        }
        return made;
    }

    void tell(bool succeeded) const
    {
        if (succeeded)
            std::cout << _shelf->fast.changes() << '\n';
        else
            std::cout << "! " << _shelf->fast.error().text() << '\n';
    }

    // bulk COUNT CELLS...
    void addAll(std::istream& words)
    {
        int count = 0;
        words >> count;
        std::vector<sql::Record> records;
        for (int i = 0; i < count; ++i)
            records.push_back(record(words));
        tell(_shelf->fast.addRecords(records.begin(), records.end()));
    }

    // copy FILE, which has the same table
    void copyTo(std::istream& words)
    {
        std::string file;
        words >> file;
        Shelf other(file, textIn(_name), _fields);
        std::cout << (other.fast.copyRecords(_shelf->fast) ? "copied " : "! ")
                  << other.fast.changes() << '\n';
    }

    static void tellRow(const sql::Record& record)
    {
        std::cout << '=';
        for (int i = 0; i < record.columnCount(); ++i)
            std::cout << ' ' << wordFor(*record.getValue(i));
        std::cout << '\n';
    }

    // Each on a line, and how they end.
    void tellRows()
    {
        sql::RecordCursor rows = _shelf->fast.select();
        sql::Record record(_shelf->texts);
        while (rows.next(record))
            tellRow(record);
        std::cout << (rows.finished() ? "end" : "! " + rows.error().text()) << '\n';
    }

    // An integer, or a text.
    void runByKey(const std::string& operation, std::istream& words)
    {
        std::string word;
        words >> word;
        if (word[0] == 'x')
            runByKey(operation, textIn(word));
        else
            runByKey(operation, std::stoll(word));
    }

    template <typename Key> void runByKey(const std::string& operation, const Key& key)
    {
        static const char* const presences[] = {"absent", "present", "unknown"};
        sql::PreparedTable& fast = _shelf->fast;
        sql::Record found(_shelf->texts);
        if (operation == "delete")
            tell(fast.deleteRecord(key));
        else if (operation == "has")
            std::cout << presences[static_cast<int>(fast.hasRecordWithKeyId(key))] << '\n';
        else if (fast.readRecord(key, found))
            tellRow(found);
        else
            tell(!fast.error());
    }

    std::string _file;
    std::string _name;
    std::vector<sql::Field> _fields;
    std::unique_ptr<Shelf> _shelf;
};

} // namespace

int main()
{
    Series series;
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream words(line);
        std::string operation;
        words >> operation;
        if (operation == "shelf")
            series.open(words);
        else
            series.run(operation, words);
    }
    return 0;
}
