#include "livequery.h"
#include "livequery_p.h"

#include "exception.h"
#include "fieldvalue.h"
#include "masterindex.h"
#include "tablemodel.h"

#include <QtCore/QLocale>

#include <cmath>
#include <cstring>
#include <utility>

using namespace livequery;

// ---------------------------------------------------------------------------
// Filters

struct QueryFilterNode
{
    enum Kind { Compare, Predicate, And, Or, Not } kind;
    QString column;
    QueryFilter::Operator op = QueryFilter::Equal;
    QVariant value;
    std::function<bool(const Record &)> predicate;
    std::vector<std::shared_ptr<const QueryFilterNode>> children;
};

QueryFilter::QueryFilter() = default;

QueryFilter QueryFilter::column(const QString &name, Operator op, const QVariant &value)
{
    auto node = std::make_shared<QueryFilterNode>();
    node->kind = QueryFilterNode::Compare;
    node->column = name;
    node->op = op;
    node->value = value;
    return QueryFilter(std::move(node));
}

QueryFilter QueryFilter::predicate(std::function<bool(const Record &)> accept)
{
    auto node = std::make_shared<QueryFilterNode>();
    node->kind = QueryFilterNode::Predicate;
    node->predicate = std::move(accept);
    return QueryFilter(std::move(node));
}

QueryFilter QueryFilter::operator&&(const QueryFilter &other) const
{
    // An empty filter is "true": it leaves the other one as it is.
    if (isEmpty())
        return other;
    if (other.isEmpty())
        return *this;
    auto node = std::make_shared<QueryFilterNode>();
    node->kind = QueryFilterNode::And;
    node->children = {m_node, other.m_node};
    return QueryFilter(std::move(node));
}

QueryFilter QueryFilter::operator||(const QueryFilter &other) const
{
    if (isEmpty() || other.isEmpty())
        return QueryFilter();
    auto node = std::make_shared<QueryFilterNode>();
    node->kind = QueryFilterNode::Or;
    node->children = {m_node, other.m_node};
    return QueryFilter(std::move(node));
}

QueryFilter QueryFilter::operator!() const
{
    auto node = std::make_shared<QueryFilterNode>();
    node->kind = QueryFilterNode::Not;
    if (isEmpty()) {
        // Not "true": nothing passes.
        node->kind = QueryFilterNode::Predicate;
        node->predicate = [](const Record &) { return false; };
    } else {
        node->children = {m_node};
    }
    return QueryFilter(std::move(node));
}

int livequery::columnOf(const Table *table, const QString &name)
{
    const int column = table->columnIndex(name);
    if (column < 0)
        throw Exception(QStringLiteral("Column '%1' not found in table '%2'.").arg(name, table->name()));
    return column;
}

Filter::Filter(const Table *table, const QueryFilter &filter)
{
    if (!filter.isEmpty())
        m_root.push_back(resolve(table, *filter.node()));
}

Filter::Node Filter::resolve(const Table *table, const QueryFilterNode &from)
{
    Node node;
    node.kind = static_cast<Node::Kind>(from.kind);
    switch (from.kind) {
    case QueryFilterNode::Compare:
        node.column = columnOf(table, from.column);
        node.op = from.op;
        if (from.value.isValid() && table->columnType(node.column) == FieldType::Decimal) {
            // At the value's own scale, not rounded to the column's: a
            // comparison with 10.125 stays one with 10.125.
            bool ok = false;
            const decimal value = from.value.userType() == decimal::metatypeId()
                ? from.value.value<decimal>()
                : decimal::fromAnyString(from.value.toString(), &ok);
            if (from.value.userType() != decimal::metatypeId() && !ok)
                throw Exception(QStringLiteral("Can't convert '%1' to a decimal to compare with column '%2'.")
                                    .arg(from.value.toString(), from.column));
            node.value.kind = Value::Decimal;
            node.value.i = value.data();
        } else if (from.value.isValid()) {
            FieldValue value(&table->columnDef(node.column));
            value = from.value;
            node.value = Value::of(value);
        }
        break;
    case QueryFilterNode::Predicate:
        node.predicate = from.predicate;
        break;
    default:
        for (const auto &child : from.children)
            node.children.push_back(resolve(table, *child));
    }
    return node;
}

bool Filter::test(const Node &node, const Record &record)
{
    switch (node.kind) {
    case Node::Compare: {
        const int c = Value::of(record.data(node.column)).compare(node.value);
        switch (node.op) {
        case QueryFilter::Equal: return c == 0;
        case QueryFilter::NotEqual: return c != 0;
        case QueryFilter::Less: return c < 0;
        case QueryFilter::LessEqual: return c <= 0;
        case QueryFilter::Greater: return c > 0;
        case QueryFilter::GreaterEqual: return c >= 0;
        }
        return false;
    }
    case Node::Predicate:
        return node.predicate(record);
    case Node::And:
        for (const Node &child : node.children) {
            if (!test(child, record))
                return false;
        }
        return true;
    case Node::Or:
        for (const Node &child : node.children) {
            if (test(child, record))
                return true;
        }
        return false;
    case Node::Not:
        return !test(node.children.front(), record);
    }
    return false;
}

bool Filter::accepts(const Record &record) const
{
    return m_root.empty() || test(m_root.front(), record);
}

// ---------------------------------------------------------------------------
// Values

Value Value::of(const Field &field)
{
    Value v;
    if (field.isNull())
        return v;
    switch (field.type()) {
    case FieldType::Integer:
        v.kind = Int;
        v.i = field.asInteger();
        break;
    case FieldType::Integer64:
        v.kind = Int;
        v.i = field.asInteger64();
        break;
    case FieldType::Double:
        v.kind = Double;
        v.d = field.asDouble();
        break;
    case FieldType::Decimal:
        v.kind = Decimal;
        v.i = field.toDecimal().data();
        break;
    case FieldType::DateTime:
        v.kind = DateTime;
        v.i = field.asDatetime().data();
        break;
    case FieldType::String:
        v.kind = Text;
        v.s = FieldType::getString(field.data(), field.length());
        break;
    case FieldType::BoardList:
        v.kind = Text;
        v.s = Field::boardlistToString(field.toBoardlist());
        break;
    default:
        break;
    }
    return v;
}

int Value::compare(const Value &o) const
{
    if (kind != o.kind) {
        // Only null meets another kind in one column.
        return kind < o.kind ? -1 : 1;
    }
    switch (kind) {
    case Null:
        return 0;
    case Int:
    case DateTime:
        return i < o.i ? -1 : (i > o.i ? 1 : 0);
    case Double:
        if (d < o.d)
            return -1;
        if (o.d < d)
            return 1;
        // NaN after every number, equal to itself: a strict order for sorting.
        return std::isnan(d) == std::isnan(o.d) ? 0 : (std::isnan(d) ? 1 : -1);
    case Decimal:
        return decimal::from56s7(i).compare(decimal::from56s7(o.i));
    case Text:
        return s.compare(o.s);
    }
    return 0;
}

size_t Value::hash() const
{
    switch (kind) {
    case Null:
        return 0x51ed27;
    case Int:
    case DateTime:
        return std::hash<long long>()(i) + kind;
    case Double: {
        // +0 and -0 are equal, so they hash alike.
        const double x = d == 0 ? 0.0 : d;
        long long bits;
        std::memcpy(&bits, &x, sizeof bits);
        return std::hash<long long>()(bits) + kind;
    }
    case Decimal:
        // Values of one column share its scale: equal numbers, equal words.
        return std::hash<long long>()(i) + kind;
    case Text:
        return qHash(s);
    }
    return 0;
}

QVariant Value::toVariant() const
{
    switch (kind) {
    case Null:
        return QVariant();
    case Int:
        return QVariant(static_cast<qlonglong>(i));
    case Double:
        return d;
    case Decimal:
        return decimal::from56s7(i).toVariant();
    case DateTime:
        return datetime(i).toVariant();
    case Text:
        return s;
    }
    return QVariant();
}

QVariant Value::toSortValue() const
{
    if (kind == Decimal)
        return decimal::from56s7(i).toDouble();
    return toVariant();
}

QString Value::toDisplay() const
{
    switch (kind) {
    case Null:
        return QString();
    case Int:
        return QLocale::system().toString(static_cast<qlonglong>(i));
    case Double:
        return QLocale::system().toString(d, 'g', 6);
    case Decimal:
        return decimal::from56s7(i).toSystemString();
    case DateTime:
        return datetime(i).toSystemString(false, QLocale::ShortFormat);
    case Text:
        return s;
    }
    return QString();
}

namespace {

// The order of two fields of one column, as Value::compare orders them,
// without copying the numbers out.
int compareFields(const Field &a, const Field &b)
{
    const bool an = a.isNull();
    const bool bn = b.isNull();
    if (an || bn)
        return an == bn ? 0 : (an ? -1 : 1);
    switch (a.type()) {
    case FieldType::Integer: {
        const int x = a.asInteger(), y = b.asInteger();
        return x < y ? -1 : (x > y ? 1 : 0);
    }
    case FieldType::Integer64:
    case FieldType::DateTime: {
        const long long x = a.asInteger64(), y = b.asInteger64();
        return x < y ? -1 : (x > y ? 1 : 0);
    }
    case FieldType::Double: {
        const double x = a.asDouble(), y = b.asDouble();
        if (x < y)
            return -1;
        if (y < x)
            return 1;
        // NaN after every number, as Value orders it.
        return std::isnan(x) == std::isnan(y) ? 0 : (std::isnan(x) ? 1 : -1);
    }
    case FieldType::Decimal:
        return a.asDecimal().compare(b.asDecimal());
    default:
        return Value::of(a).compare(Value::of(b));
    }
}

} // namespace

// ---------------------------------------------------------------------------
// The flat query's index

SortIndex::SortIndex(Table *table, const LiveQuery &query)
    : IndexSort(table, false)
    , m_filter(table, query.filter())
{
    for (const LiveQuery::SortKey &key : query.sortKeys())
        m_sort.push_back({columnOf(table, key.column), key.order == Qt::DescendingOrder ? -1 : 1});
}

int SortIndex::compare(const Record &a, const Record &b) const
{
    for (const SortColumn &key : m_sort) {
        const int c = compareFields(a.data(key.column), b.data(key.column));
        if (c != 0)
            return c * key.sign;
    }
    return m_table->masterIndex()->compare(a, b);
}

void SortIndex::build()
{
    appendFromMaster(false);
    if (!sortByKeys())
        resort();
}

namespace {

// A number's place in the order compare() gives it, as an unsigned word:
// -0 with +0, every NaN after every number.
quint64 orderedWord(double x)
{
    if (std::isnan(x))
        return ~quint64(0);
    if (x == 0)
        x = 0;
    quint64 bits;
    std::memcpy(&bits, &x, sizeof bits);
    return (bits >> 63) ? ~bits : bits | (quint64(1) << 63);
}

struct Keyed
{
    quint64 key;
    quint32 position;
};

// A stable sort by key, eight bits a pass, skipping the bytes that every
// key shares.
void radixSort(std::vector<Keyed> &items)
{
    std::vector<Keyed> buffer(items.size());
    for (int shift = 0; shift < 64; shift += 8) {
        size_t counts[256] = {};
        for (const Keyed &item : items)
            ++counts[(item.key >> shift) & 0xFF];
        if (counts[(items.front().key >> shift) & 0xFF] == items.size())
            continue;
        size_t start = 0;
        for (size_t &count : counts)
            start += std::exchange(count, start);
        for (const Keyed &item : items)
            buffer[counts[(item.key >> shift) & 0xFF]++] = item;
        items.swap(buffer);
    }
}

} // namespace

// The list, in the master's order, sorted stably by one number column
// copied out beside each handle: the master's order breaks the ties as
// compare() does, and the sort never reaches back into the rows. Other
// orders sort through compare().
bool SortIndex::sortByKeys()
{
    if (m_sort.size() != 1 || m_list.count() < 2)
        return false;
    const SortColumn key = m_sort.front();
    const FieldType::Type type = m_table->columnType(key.column);
    if (type != FieldType::Integer && type != FieldType::Integer64 && type != FieldType::DateTime
        && type != FieldType::Double)
        return false;
    // Nulls first (last when descending), in the master's order.
    std::vector<Keyed> items;
    std::vector<quint32> nulls;
    items.reserve(static_cast<size_t>(m_list.count()));
    std::vector<Record *> handles;
    handles.reserve(static_cast<size_t>(m_list.count()));
    for (const auto &segment : m_list.segments()) {
        for (int k = 0; k < segment.count; ++k) {
            Record *record = segment.first + k;
            const auto position = static_cast<quint32>(handles.size());
            handles.push_back(record);
            const Field field = record->data(key.column);
            if (field.isNull()) {
                nulls.push_back(position);
                continue;
            }
            quint64 word;
            if (type == FieldType::Double)
                word = orderedWord(field.asDouble());
            else
                word = static_cast<quint64>(type == FieldType::Integer ? field.asInteger() : field.asInteger64())
                    ^ (quint64(1) << 63);
            items.push_back({key.sign < 0 ? ~word : word, position});
        }
    }
    if (!items.empty())
        radixSort(items);
    std::vector<Record> sorted;
    sorted.reserve(handles.size());
    if (key.sign > 0) {
        for (quint32 position : nulls)
            sorted.push_back(std::move(*handles[position]));
    }
    for (const Keyed &item : items)
        sorted.push_back(std::move(*handles[item.position]));
    if (key.sign < 0) {
        for (quint32 position : nulls)
            sorted.push_back(std::move(*handles[position]));
    }
    for (size_t k = 0; k < handles.size(); ++k)
        *handles[k] = std::move(sorted[k]);
    return true;
}

bool SortIndex::filter(const Record &record) const
{
    return m_filter.accepts(record);
}

QString SortIndex::getClassName() const
{
    return QStringLiteral("LiveQuerySortIndex");
}

// ---------------------------------------------------------------------------
// Declarations

namespace {

QueryAggregate make(QueryAggregate::Kind kind, const QString &column, const QString &title)
{
    QueryAggregate a;
    a.kind = kind;
    a.column = column;
    a.title = title;
    return a;
}

} // namespace

QueryAggregate QueryAggregate::count(const QString &title) { return make(Count, QString(), title); }
QueryAggregate QueryAggregate::sum(const QString &column, const QString &title) { return make(Sum, column, title); }
QueryAggregate QueryAggregate::min(const QString &column, const QString &title) { return make(Min, column, title); }
QueryAggregate QueryAggregate::max(const QString &column, const QString &title) { return make(Max, column, title); }
QueryAggregate QueryAggregate::average(const QString &column, const QString &title)
{
    return make(Average, column, title);
}
QueryAggregate QueryAggregate::first(const QString &column, const QString &title) { return make(First, column, title); }
QueryAggregate QueryAggregate::last(const QString &column, const QString &title) { return make(Last, column, title); }
QueryAggregate QueryAggregate::weightedAverage(const QString &column, const QString &weightColumn, const QString &title)
{
    QueryAggregate a = make(WeightedAverage, column, title);
    a.weightColumn = weightColumn;
    return a;
}

QString QueryAggregate::header() const
{
    if (!title.isEmpty())
        return title;
    static const char *const names[] = {"count", "sum", "min", "max", "avg", "first", "last", "wavg"};
    const QString name = QLatin1String(names[kind]);
    if (kind == Count)
        return name;
    if (kind == WeightedAverage)
        return QStringLiteral("%1(%2, %3)").arg(name, column, weightColumn);
    return QStringLiteral("%1(%2)").arg(name, column);
}

LiveQuery &LiveQuery::select(const QStringList &columns)
{
    m_columns = columns;
    return *this;
}

LiveQuery &LiveQuery::where(const QueryFilter &filter)
{
    m_filter = filter;
    return *this;
}

LiveQuery &LiveQuery::orderBy(const QString &column, Qt::SortOrder order)
{
    m_sort.append({column, order});
    return *this;
}

LiveQuery &LiveQuery::groupBy(const QStringList &columns)
{
    m_groupBy = columns;
    return *this;
}

LiveQuery &LiveQuery::aggregate(const QueryAggregate &aggregate)
{
    m_aggregates.append(aggregate);
    return *this;
}

LiveQuery &LiveQuery::withTotal(bool total)
{
    m_total = total;
    return *this;
}

// ---------------------------------------------------------------------------
// The model

class LiveQueryModelPrivate
{
public:
    QPointer<Table> table;
    LiveQuery query;
    // Flat: a model over an index of our own; grouped: the group model.
    std::unique_ptr<SortIndex> index;
    std::unique_ptr<TableModel> flat;
    std::unique_ptr<GroupModel> groups;

    void release()
    {
        flat.reset();
        groups.reset();
        if (index) {
            if (table) {
                TableLocker locker(table);
                table->removeIndex(index.get());
            }
            index.reset();
        }
    }
};

LiveQueryModel::LiveQueryModel(Table *table, const LiveQuery &query, QObject *parent)
    : QIdentityProxyModel(parent), d(new LiveQueryModelPrivate)
{
    d->table = table;
    setQuery(query);
}

LiveQueryModel::~LiveQueryModel()
{
    setSourceModel(nullptr);
    d->release();
}

Table *LiveQueryModel::table() const
{
    return d->table;
}

const LiveQuery &LiveQueryModel::query() const
{
    return d->query;
}

void LiveQueryModel::setQuery(const LiveQuery &query)
{
    Table *table = d->table;
    if (!table)
        return;
    // Built aside first: a query that does not resolve leaves the old one.
    std::unique_ptr<SortIndex> index;
    std::unique_ptr<TableModel> flat;
    std::unique_ptr<GroupModel> groups;
    if (query.isGrouped()) {
        groups = std::make_unique<GroupModel>(table, query, nullptr);
        groups->onUpdated = [this] { Q_EMIT updated(); };
    } else {
        for (const QString &name : query.columns())
            columnOf(table, name);
        {
            TableLocker locker(table);
            index = std::make_unique<SortIndex>(table, query);
            index->build();
            table->addIndex(index.get());
        }
        flat = std::make_unique<TableModel>(index.get(), query.columns());
        connect(flat.get(), &TableModel::updated, this, &LiveQueryModel::updated);
    }
    // One reset: the new source replaces the old, which goes after.
    LiveQueryModelPrivate old;
    old.table = d->table;
    old.index = std::move(d->index);
    old.flat = std::move(d->flat);
    old.groups = std::move(d->groups);
    d->query = query;
    d->index = std::move(index);
    d->flat = std::move(flat);
    d->groups = std::move(groups);
    setSourceModel(d->flat ? static_cast<QAbstractItemModel *>(d->flat.get()) : d->groups.get());
    old.release();
}

Record LiveQueryModel::record(int row) const
{
    return d->flat ? d->flat->record(row) : Record();
}

bool LiveQueryModel::hasPendingChanges() const
{
    if (d->flat)
        return d->flat->hasPendingChanges();
    return d->groups && d->groups->hasPendingChanges();
}

void LiveQueryModel::update()
{
    if (d->flat)
        d->flat->update();
    else if (d->groups)
        d->groups->update();
}
