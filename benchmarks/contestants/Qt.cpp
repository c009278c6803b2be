#include "Contestant.h"

#include <QCoreApplication>
#include <QSqlDatabase>
#include <QSqlDriver>
#include <QSqlQuery>
#include <QString>
#include <QVariant>

namespace bench {

namespace {

// Texts are QString, as they are in programs with Qt; queries prepared once, read forward only.
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

void addTo(Digest& digest, const QtRow& row)
{
    digest.add(row.id, row.name.size(), row.place[0].toLatin1(), row.price, row.active, row.changed,
               row.note.isNull() ? 0 : row.note.size() + 1);
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

const int indexes[column_count] = {0, 1, 2, 3, 4, 5, 6};

// Plugins are looked for from an application object.
void needApplication()
{
    static int argc = 1;
    static char name[] = "benchmark";
    static char* argv[] = {name, nullptr};
    static const QCoreApplication application(argc, argv);
}

class Qt : public Contestant {
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
    void close() override;
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
    void insert(const Row& row) override
    {
        insertRow(qtRowOf(row));
    }
    void makeReady(const std::vector<Row>& rows) override
    {
        for (const Row& row : rows)
            _ready.push_back(qtRowOf(row));
    }
    void insertReady(int index) override
    {
        insertRow(_ready[index]);
    }
    void update(const Row& row) override;
    void addOrUpdate(const Row& row) override;
    void remove(long long key) override
    {
        find(_remove, "delete from item where id = ?", key);
    }
    bool lookup(long long key) override;
    bool exists(long long key) override
    {
        find(_exists, "select 1 from item where id = ?", key);
        return _exists->next();
    }
    long long count() override;
    long long load() override;
    void readByIndex(Digest& digest) override;
    void readByName(Digest& digest) override;
    void copyFrom(Contestant& source) override;

private:
    using Cached = std::unique_ptr<QSqlQuery>;

    QSqlQuery& prepared(Cached& query, const char* sql);
    void insertRow(const QtRow& row);
    void write(Cached& query, const char* sql, const QtRow& row);
    void find(Cached& query, const char* sql, long long key);
    QSqlQuery& select();

    QString _connection;
    QSqlDatabase _db;
    Cached _insert;
    Cached _update;
    Cached _addOrUpdate;
    Cached _remove;
    Cached _lookup;
    Cached _exists;
    Cached _count;
    Cached _select;
    std::vector<QtRow> _ready;
    std::vector<QtRow> _rows;
    QtRow _row;
};

void Qt::close()
{
    for (Cached* const query :
         {&_insert, &_update, &_addOrUpdate, &_remove, &_lookup, &_exists, &_count, &_select})
        query->reset();
    _ready.clear();
    _rows = std::vector<QtRow>();
    _db.close();
    _db = QSqlDatabase();
    QSqlDatabase::removeDatabase(_connection);
}

QSqlQuery& Qt::prepared(Cached& query, const char* sql)
{
    if (query == nullptr) {
        query = std::make_unique<QSqlQuery>(_db);
        query->setForwardOnly(true);
        require(query->prepare(sql), sql);
    }
    return *query;
}

void Qt::write(Cached& cached, const char* sql, const QtRow& row)
{
    QSqlQuery& query = prepared(cached, sql);
    query.bindValue(0, row.id);
    query.bindValue(1, row.name);
    query.bindValue(2, row.place);
    query.bindValue(3, row.price);
    query.bindValue(4, row.active);
    query.bindValue(5, row.changed);
    query.bindValue(6, row.note);
    require(query.exec(), sql);
}

void Qt::insertRow(const QtRow& row)
{
    write(_insert, "insert into item values (?, ?, ?, ?, ?, ?, ?)", row);
}

void Qt::update(const Row& row)
{
    const QtRow own = qtRowOf(row);
    QSqlQuery& query = prepared(
        _update,
        "update item set name=?, place=?, price=?, active=?, changed=?, note=? where id = ?");
    query.bindValue(0, own.name);
    query.bindValue(1, own.place);
    query.bindValue(2, own.price);
    query.bindValue(3, own.active);
    query.bindValue(4, own.changed);
    query.bindValue(5, own.note);
    query.bindValue(6, own.id);
    require(query.exec(), "update");
}

void Qt::addOrUpdate(const Row& row)
{
    write(
        _addOrUpdate,
        "insert into item values (?, ?, ?, ?, ?, ?, ?) on conflict(id) do update set name=excluded.name, place=excluded.place, price=excluded.price, active=excluded.active, changed=excluded.changed, note=excluded.note",
        qtRowOf(row));
}

void Qt::find(Cached& cached, const char* sql, long long key)
{
    QSqlQuery& query = prepared(cached, sql);
    query.bindValue(0, key);
    require(query.exec(), sql);
}

bool Qt::lookup(long long key)
{
    find(_lookup, "select * from item where id = ?", key);
    if (!_lookup->next())
        return false;
    readRow(*_lookup, _row, indexes);
    return true;
}

long long Qt::count()
{
    QSqlQuery& query = prepared(_count, "select count(*) from item");
    require(query.exec() && query.next(), "count");
    return query.value(0).toLongLong();
}

QSqlQuery& Qt::select()
{
    QSqlQuery& query = prepared(_select, "select * from item");
    require(query.exec(), "select");
    return query;
}

long long Qt::load()
{
    _rows.clear();
    const QSqlQuery& query = select();
    while (_select->next())
        readRow(query, _rows.emplace_back(), indexes);
    return static_cast<long long>(_rows.size());
}

void Qt::readByIndex(Digest& digest)
{
    QSqlQuery& query = select();
    while (query.next()) {
        readRow(query, _row, indexes);
        addTo(digest, _row);
    }
}

void Qt::readByName(Digest& digest)
{
    static const QString names[column_count] = {column_names[0], column_names[1], column_names[2],
                                                column_names[3], column_names[4], column_names[5],
                                                column_names[6]};
    QSqlQuery& query = select();
    while (query.next()) {
        readRow(query, _row, names);
        addTo(digest, _row);
    }
}

void Qt::copyFrom(Contestant& source)
{
    Qt& from = static_cast<Qt&>(source);
    QSqlQuery& query = from.select();
    while (query.next()) {
        readRow(query, _row, indexes);
        insertRow(_row);
    }
}

} // namespace

std::unique_ptr<Contestant> makeQt()
{
    return std::make_unique<Qt>();
}

} // namespace bench
