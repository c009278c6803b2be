#include "SyncModel.h"

#include <algorithm>

namespace test {

using sql::integer;
using std::string;

string textOf(const SyncRows& rows)
{
    string text;
    for (const auto& [key, row] : rows) {
        text += (text.empty() ? "" : "\n") + std::to_string(key);
        for (const string& cell : row)
            text += "|" + cell;
    }
    return text;
}

// --- Changes --------------------------------------------------------------------------------------

namespace {

std::optional<SyncRow> rowOf(const SyncRows& rows, int key)
{
    const auto found = rows.find(key);
    return found != rows.end() ? std::optional<SyncRow>(found->second) : std::nullopt;
}

// A byte for the type, one for the length unless it is NULL.
integer sizeOf(const string& text)
{
    return text == sync_null ? 1 : 2 + static_cast<integer>(text.size());
}

integer sizeOf(const SyncChange& change)
{
    integer size = 2 + 9; // operation and key
    if (!change.before || !change.after) {
        for (const string& cell : change.before ? *change.before : *change.after)
            size += sizeOf(cell);
        return size;
    }
    ++size; // no new key
    for (std::size_t i = 0; i < change.before->size(); ++i) {
        const string& before = (*change.before)[i];
        const string& after = (*change.after)[i];
        size += before == after ? 2 : sizeOf(before) + sizeOf(after);
    }
    return size;
}

} // namespace

SyncChanges::SyncChanges(const SyncRows& before, const SyncRows& after, std::size_t columnCount)
    : columns(columnCount)
{
    SyncRows all = before;
    all.insert(after.begin(), after.end());
    for (const auto& entry : all) {
        const SyncChange change{rowOf(before, entry.first), rowOf(after, entry.first)};
        if (change.before != change.after)
            rows[entry.first] = change;
    }
}

void SyncChanges::add(const SyncChanges& later)
{
    for (const auto& [key, change] : later.rows) {
        SyncChange& both = rows.insert({key, change}).first->second;
        both.after = change.after;
        if (both.before == both.after)
            rows.erase(key);
    }
}

integer SyncChanges::size() const
{
    const integer flags = 1 + static_cast<integer>(columns);
    integer size = rows.empty() ? 0 : 2 + flags + static_cast<integer>(sizeof("reading"));
    for (const auto& entry : rows)
        size += sizeOf(entry.second);
    return size;
}

// --- Device ---------------------------------------------------------------------------------------

integer DeviceModel::bytes() const
{
    integer bytes = 0;
    for (const SyncRange& range : outbox)
        bytes += range.changes.size();
    return bytes;
}

bool DeviceModel::commit(const SyncRows& changed, const sql::RecorderOptions& options,
                         integer incarnation, string& refusal)
{
    const DeviceModel before = *this;
    SyncRange range;
    range.changes = SyncChanges(rows, changed, columns);
    rows = changed;
    if (range.changes.rows.empty())
        return true;
    range.previous = last;
    range.first = last.second + 1;
    range.last = last = {incarnation, range.first};
    outbox.push_back(range);
    if (options.limit == 0 || bytes() <= options.limit)
        return true;
    if (options.whenFull == sql::WhenFull::merge_ranges)
        mergeUnsent();
    else if (options.whenFull == sql::WhenFull::drop_oldest)
        dropOldest(options.limit);
    if (bytes() <= options.limit)
        return true;
    refusal = "the outbox is full: " + std::to_string(bytes()) + " bytes, at most "
              + std::to_string(options.limit) + " are allowed";
    *this = before;
    return false;
}

// All of one schema become one.
void DeviceModel::mergeUnsent()
{
    std::deque<SyncRange> merged;
    for (const SyncRange& range : outbox) {
        if (range.isSent || merged.empty() || merged.back().isSent
            || merged.back().changes.columns != range.changes.columns) {
            merged.push_back(range);
            continue;
        }
        merged.back().changes.add(range.changes);
        merged.back().last = range.last;
    }
    outbox = merged;
}

// None if the latest alone has too much.
void DeviceModel::dropOldest(integer limit)
{
    if (outbox.back().changes.size() > limit)
        return;
    for (; bytes() > limit; outbox.pop_front())
        dropped = outbox.front().last.second;
}

const SyncRange* DeviceModel::next(integer after, integer most)
{
    const auto isBehind = [after](const SyncRange& range) {
        return range.last.second > after;
    };
    const auto range = std::find_if(outbox.begin(), outbox.end(), isBehind);
    if (range == outbox.end())
        return nullptr;
    if (!range->isSent) {
        auto end = range + 1;
        integer size = range->changes.size();
        for (; end != outbox.end() && end->changes.columns == range->changes.columns; ++end) {
            size += end->changes.size();
            if (size > most)
                break;
            range->changes.add(end->changes);
            range->last = end->last;
        }
        outbox.erase(range + 1, end);
    }
    SyncRange& sent = *std::find_if(outbox.begin(), outbox.end(), isBehind);
    sent.isSent = true;
    sent.dropped = dropped;
    return &sent;
}

void DeviceModel::acknowledge(integer number)
{
    while (!outbox.empty() && outbox.front().last.second <= number)
        outbox.pop_front();
}

void DeviceModel::addColumn(const string& value)
{
    ++columns;
    for (auto& entry : rows)
        entry.second.push_back(value);
}

// --- Centre ---------------------------------------------------------------------------------------

CentreModel::Outcome CentreModel::apply(const SyncRange& range)
{
    const auto found = _lines.find(range.last.first);
    if (found != _lines.end() && range.last.second >= found->second.first
        && range.last.second <= found->second.last)
        return repeated;
    if (found != _lines.end() && found->second.isRetired)
        return retired;
    const integer surplus = range.previous.second - mark.second;
    if (surplus > 0 && range.dropped != range.previous.second)
        return missing;
    if (surplus <= 0 && range.previous != mark)
        return forked;
    if (range.changes.columns > columns)
        return unknown_column;
    note(range.last);
    lost += surplus;
    mark = range.last;
    if (waiting.empty() && change(range))
        return applied;
    waiting.push_back(range);
    return kept;
}

// The commits behind the mark have come or are passed over.
void CentreModel::note(const SyncPlace& last)
{
    const integer first = mark.second + 1;
    Line& line = _lines.insert({last.first, {first, last.second, false}}).first->second;
    line.first = std::min(line.first, first);
    line.last = std::max(line.last, last.second);
}

// The line that has come so far ends.
void CentreModel::admit(const SyncRange& range)
{
    const integer surplus = range.previous.second - mark.second;
    if (surplus > 0) {
        note(range.previous);
        lost += surplus;
    }
    const auto found = _lines.find(mark.first);
    if (found != _lines.end() && mark.first != range.last.first)
        found->second.isRetired = true;
    mark = range.previous;
}

int CentreModel::retry()
{
    int count = 0;
    for (; !waiting.empty() && change(waiting.front()); ++count)
        waiting.pop_front();
    return count;
}

void CentreModel::addColumn(const string& value)
{
    ++columns;
    _defaults.push_back(value);
    for (auto& entry : rows)
        entry.second.push_back(value);
}

bool CentreModel::change(const SyncRange& range)
{
    reasons = conflictsOf(range);
    if (!reasons.empty())
        return false;
    for (const auto& [key, change] : range.changes.rows) {
        if (!change.after) {
            rows.erase(key);
            continue;
        }
        SyncRow& row = rows[key];
        if (!change.before) {
            row = *change.after;
            row.insert(row.end(), _defaults.begin() + static_cast<int>(row.size() - 2),
                       _defaults.end());
        }
        for (std::size_t i = 0; change.before && i < change.after->size(); ++i) {
            if ((*change.before)[i] != (*change.after)[i])
                row[i] = (*change.after)[i];
        }
    }
    return true;
}

// An update looks at those columns that it changes, a deletion at all that the device has.
std::set<string> CentreModel::conflictsOf(const SyncRange& range) const
{
    std::set<string> conflicts;
    for (const auto& [key, change] : range.changes.rows) {
        const std::optional<SyncRow> here = rowOf(rows, key);
        if (!change.before) {
            if (here)
                conflicts.insert("table 'reading', insert: there is a row with this key here");
            continue;
        }
        const string start = change.after ? "table 'reading', update: "
                                          : "table 'reading', delete: ";
        if (!here) {
            conflicts.insert(start + "there is no such row here");
            continue;
        }
        for (std::size_t i = 0; i < change.before->size(); ++i) {
            const bool isCompared = !change.after || (*change.after)[i] != (*change.before)[i];
            if (isCompared && (*here)[i] != (*change.before)[i])
                conflicts.insert(start + "the row has other values here");
        }
    }
    return conflicts;
}

} // namespace test
