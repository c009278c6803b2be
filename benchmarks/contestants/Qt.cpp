#include "Contestant.h"

#include <QCoreApplication>
#include <QSqlDatabase>
#include <QSqlDriver>
#include <QSqlQuery>
#include <QString>
#include <QVariant>

namespace bench {

namespace {

// Texts are QString, as they are in programs with Qt; queries read forward only.
struct QtRow {
    qlonglong id = 0;
    QString name;
    QString place;
    double price = 0.0;
    bool active = false;
    qlonglong changed = 0;
    QString note; // null for null
};

QtRow qtRowOf(const Row& row)
{
    return {row.id,
            QString::fromStdString(row.name),
            QString::fromStdString(row.place),
            row.price,
            row.active,
            row.changed,
            row.note ? QString::fromStdString(*row.note) : QString()};
}

// The columns are given by number or by name.
template <typename Column>
void readRow(const QSqlQuery& query, QtRow& row, const Column (&columns)[column_count])
{
    row.id = query.value(columns[0]).toLongLong();
    row.name = query.value(columns[1]).toString();
    row.place = query.value(columns[2]).toString();
    row.price = query.value(columns[3]).toDouble();
    row.active = query.value(columns[4]).toBool();
    row.changed = query.value(columns[5]).toLongLong();
    row.note = query.value(columns[6]).toString();
}

// Values are bound in the order in which they stand, each once.
const char* textOf(Work work)
{
    if (work == update_row)
        return "update item set name=?, place=?, price=?, active=?, changed=?, note=? where id = ?";
    if (work == add_or_update_row)
        return "insert into item values (?, ?, ?, ?, ?, ?, ?) on conflict(id) do update set name=excluded.name, place=excluded.place, price=excluded.price, active=excluded.active, changed=excluded.changed, note=excluded.note";
    return statements[work];
}

// Plugins are looked for from an application object.
void needApplication()
{
    static int argc = 1;
    static char name[] = "benchmark";
    static char* argv[] = {name, nullptr};
    static const QCoreApplication application(argc, argv);
}

class Qt : public PreparingContestant {
public:
    Qt() : _connection(QString::number(reinterpret_cast<quintptr>(this)))
    {
        needApplication();
    }
    void open(const std::string& file) override
    {
        _db = QSqlDatabase::addDatabase("QSQLITE", _connection);
        _db.setDatabaseName(QString::fromStdString(file));
        _db.setConnectOptions("QSQLITE_BUSY_TIMEOUT=1000");
        require(_db.open(), "open");
    }
    void close() override
    {
        for (std::unique_ptr<QSqlQuery>& query : _queries)
            query.reset();
        _ready.clear();
        _rows = std::vector<QtRow>();
        _db.close();
        _db = QSqlDatabase();
        QSqlDatabase::removeDatabase(_connection);
    }
    sqlite3* handle() override
    {
        return *static_cast<sqlite3* const*>(_db.driver()->handle().constData());
    }
    void begin() override
    {
        require(_db.transaction(), "begin");
    }
    void commit() override
    {
        require(_db.commit(), "commit");
    }
    void makeReady(const std::vector<Row>& rows) override
    {
        for (const Row& row : rows)
            _ready.push_back(qtRowOf(row));
    }
    void insertReady(int index) override
    {
        writeRow(insert_row, _ready[index]);
    }
    long long count() override
    {
        QSqlQuery& counted = run(count_rows);
        require(counted.next(), "count");
        return counted.value(0).toLongLong();
    }
    long long load() override
    {
        _rows.clear();
        QSqlQuery& selected = run(select_rows);
        while (selected.next())
            readRow(selected, _rows.emplace_back(), column_indexes);
        return static_cast<long long>(_rows.size());
    }
    void readByIndex(Digest& digest) override
    {
        digestRows(digest, column_indexes);
    }
    void readByName(Digest& digest) override
    {
        static const QString names[column_count] = {
            column_names[0], column_names[1], column_names[2], column_names[3],
            column_names[4], column_names[5], column_names[6]};
        digestRows(digest, names);
    }
    void copyFrom(Contestant& source) override
    {
        QSqlQuery& selected = static_cast<Qt&>(source).run(select_rows);
        while (selected.next()) {
            readRow(selected, _row, column_indexes);
            writeRow(insert_row, _row);
        }
    }

protected:
    void write(Work work, const Row& row) override
    {
        writeRow(work, qtRowOf(row));
    }
    bool find(Work work, long long key) override
    {
        prepared(work).bindValue(0, key);
        const bool found = run(work).next();
        if (found && work == look_up)
            readRow(*_queries[work], _row, column_indexes);
        return found;
    }

private:
    QSqlQuery& prepared(Work work);
    QSqlQuery& run(Work work)
    {
        QSqlQuery& query = prepared(work);
        require(query.exec(), statements[work]);
        return query;
    }
    void writeRow(Work work, const QtRow& row);
    template <typename Column>
    void digestRows(Digest& digest, const Column (&columns)[column_count]);

    QString _connection;
    QSqlDatabase _db;
    std::unique_ptr<QSqlQuery> _queries[work_count];
    std::vector<QtRow> _ready;
    std::vector<QtRow> _rows;
    QtRow _row;
};

QSqlQuery& Qt::prepared(Work work)
{
    std::unique_ptr<QSqlQuery>& query = _queries[work];
    if (query == nullptr) {
        query = std::make_unique<QSqlQuery>(_db);
        query->setForwardOnly(true);
        require(query->prepare(textOf(work)), textOf(work));
    }
    return *query;
}

void Qt::writeRow(Work work, const QtRow& row)
{
    QSqlQuery& query = prepared(work);
    const int first = work == update_row ? 0 : 1;
    query.bindValue(work == update_row ? 6 : 0, row.id);
    query.bindValue(first, row.name);
    query.bindValue(first + 1, row.place);
    query.bindValue(first + 2, row.price);
    query.bindValue(first + 3, row.active);
    query.bindValue(first + 4, row.changed);
    query.bindValue(first + 5, row.note);
    run(work);
}

template <typename Column>
void Qt::digestRows(Digest& digest, const Column (&columns)[column_count])
{
    QSqlQuery& selected = run(select_rows);
    while (selected.next()) {
        readRow(selected, _row, columns);
        digest.add(_row.id, _row.name.size(), _row.place[0].toLatin1(), _row.price, _row.active,
                   _row.changed, _row.note.isNull() ? 0 : _row.note.size() + 1);
    }
}

} // namespace

std::unique_ptr<Contestant> makeQt()
{
    return std::make_unique<Qt>();
}

} // namespace bench
