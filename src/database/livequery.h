#ifndef DATABASE_LIVEQUERY_H
#define DATABASE_LIVEQUERY_H

#include "database_export.h"
#include "table.h"

#include <QtCore/QIdentityProxyModel>
#include <QtCore/QStringList>
#include <QtCore/QVariant>

#include <functional>
#include <memory>

// Live queries: a declared view of a table (a filter, a sort or a grouping
// with aggregates) kept current as the table changes and shown as a Qt item
// model.
//
//     LiveQuery positions = LiveQuery()
//         .where(QueryFilter::column("board", QueryFilter::Equal, "TQBR"))
//         .groupBy({"symbol"})
//         .aggregate(QueryAggregate::sum("qty"))
//         .aggregate(QueryAggregate::weightedAverage("price", "qty", "VWAP"))
//         .aggregate(QueryAggregate::last("price"))
//         .aggregate(QueryAggregate::count())
//         .withTotal();
//     LiveQueryModel model(trades, positions);   // a table of groups
//
//     LiveQueryModel blotter(trades, LiveQuery()
//         .select({"ts", "symbol", "price", "qty"})
//         .orderBy("ts", Qt::DescendingOrder));  // a live sorted view

class QueryFilterNode;

// A condition on rows: comparisons of a column with a value, a predicate on
// the record, and their combinations. A default filter accepts every row.
//
// Comparisons order values as the sort does: a null is below every value,
// numbers by value, strings by UTF-16 code units, date-times by time. The
// value is converted to the column's type when the query is attached
// (Field's conversions); Equal and NotEqual against an invalid QVariant test
// for null. A predicate runs under the table's lock on the writer's thread:
// it reads the record and nothing else.
class DATABASE_EXPORT QueryFilter
{
public:
    enum Operator { Equal, NotEqual, Less, LessEqual, Greater, GreaterEqual };

    QueryFilter();
    static QueryFilter column(const QString &name, Operator op, const QVariant &value);
    static QueryFilter predicate(std::function<bool(const Record &)> accept);

    QueryFilter operator&&(const QueryFilter &other) const;
    QueryFilter operator||(const QueryFilter &other) const;
    QueryFilter operator!() const;

    // Whether the filter accepts every row without looking.
    bool isEmpty() const { return !m_node; }
    std::shared_ptr<const QueryFilterNode> node() const { return m_node; }

private:
    explicit QueryFilter(std::shared_ptr<const QueryFilterNode> node) : m_node(std::move(node)) {}
    std::shared_ptr<const QueryFilterNode> m_node;
};

// One aggregate of a grouped query.
//
// Count counts the rows of the group; the others skip rows whose column is
// null (a weighted average skips rows where either is null). Sum of an
// Integer or Integer64 column is a 64-bit integer, of a Decimal column an
// exact decimal at the column's scale, of a Double column a double.
// Average and weighted average of a Decimal column are decimals at the
// column's scale, rounded half away from zero, computed from exact sums;
// otherwise doubles. Min, max, first and last take the column's own type;
// first and last are the value now of the row that entered the group
// first and last (an update that keeps a row in its group keeps its place).
// An aggregate over no values is null.
struct DATABASE_EXPORT QueryAggregate
{
    enum Kind { Count, Sum, Min, Max, Average, First, Last, WeightedAverage };

    Kind kind = Count;
    QString column;
    QString weightColumn; // WeightedAverage only
    QString title;        // the header; empty: "count", "sum(qty)" and the like

    static QueryAggregate count(const QString &title = QString());
    static QueryAggregate sum(const QString &column, const QString &title = QString());
    static QueryAggregate min(const QString &column, const QString &title = QString());
    static QueryAggregate max(const QString &column, const QString &title = QString());
    static QueryAggregate average(const QString &column, const QString &title = QString());
    static QueryAggregate first(const QString &column, const QString &title = QString());
    static QueryAggregate last(const QString &column, const QString &title = QString());
    static QueryAggregate weightedAverage(const QString &column, const QString &weightColumn,
                                          const QString &title = QString());

    QString header() const;
};

// The declaration of a live query: a value, built by chaining.
//
// Flat (no groupBy): the rows the filter accepts, in the order of the sort
// keys, ties in the master index's order (with an arrival-order master
// index, in the order the rows entered the view), showing the selected
// columns (all by default).
//
// Grouped: one row per distinct combination of the group columns' values
// among the accepted rows (nulls form a group of their own), ordered by
// those values ascending, showing the group columns then the aggregates;
// with a total, a first row "Total" aggregating every accepted row. The
// sort keys and the selected columns do not apply to a grouped query.
class DATABASE_EXPORT LiveQuery
{
public:
    struct SortKey
    {
        QString column;
        Qt::SortOrder order;
    };

    LiveQuery &select(const QStringList &columns);
    LiveQuery &where(const QueryFilter &filter);
    // Appends a sort key.
    LiveQuery &orderBy(const QString &column, Qt::SortOrder order = Qt::AscendingOrder);
    LiveQuery &groupBy(const QStringList &columns);
    LiveQuery &aggregate(const QueryAggregate &aggregate);
    LiveQuery &withTotal(bool total = true);

    const QStringList &columns() const { return m_columns; }
    const QueryFilter &filter() const { return m_filter; }
    const QList<SortKey> &sortKeys() const { return m_sort; }
    const QStringList &groupColumns() const { return m_groupBy; }
    const QList<QueryAggregate> &aggregates() const { return m_aggregates; }
    bool hasTotal() const { return m_total; }
    bool isGrouped() const { return !m_groupBy.isEmpty(); }

private:
    QStringList m_columns;
    QueryFilter m_filter;
    QList<SortKey> m_sort;
    QStringList m_groupBy;
    QList<QueryAggregate> m_aggregates;
    bool m_total = false;
};

class LiveQueryModelPrivate;

// The item model of a live query over a table, with TableModel's promises:
// the query hears the table's changes as an index does (under the table's
// lock, on the writer's thread) and updates its state in proportion to the
// changed rows: a search per changed row for a flat query, constant work
// per row for count, sum, averages, first and last, a logarithmic step for
// min and max. The model's thread is told once per batch, and signals
// without the table's lock.
//
// A flat query is shown through a TableModel over a sorted index of its
// own (see TableModel for its signals, cells and rules). A grouped query's
// rows are copies taken under the table's lock at each update, so reading
// them never locks and never sees a row half written; an update copies the
// groups that changed, removes the groups that emptied, inserts the new
// ones at their places and emits dataChanged for each run of adjacent
// changed groups right after changing it (a proxy reading other rows meanwhile
// sees their values before the update). A clear, rebuild or reload of the
// table resets the model.
//
// An unknown column name, or a filter value that does not convert, throws
// Exception ("Column '%1' not found in table '%2'."). setQuery() replaces the
// query while live: the view is rebuilt and the model reset.
//
// Memory: a grouped query keeps, per accepted row, its group and the
// values it added (to take them back when the row changes, since a change
// is heard after the row was written), plus per group its key, its sums and,
// for min and max, the multiset of values.
//
// Rules: as TableModel's. The model is used from its own thread and deleted
// before its table.
class DATABASE_EXPORT LiveQueryModel : public QIdentityProxyModel
{
    Q_OBJECT

public:
    enum Role {
        ValueRole = Qt::UserRole, // the same roles as TableModel's
        SortRole,
    };

    LiveQueryModel(Table *table, const LiveQuery &query, QObject *parent = nullptr);
    ~LiveQueryModel() override;

    Table *table() const;
    const LiveQuery &query() const;
    void setQuery(const LiveQuery &query);

    // A flat query's record in `row`; a null record for a grouped query.
    Record record(int row) const;
    // Whether changes heard from the table are not shown yet.
    bool hasPendingChanges() const;

public Q_SLOTS:
    // Shows the changes heard so far now, instead of at the queued update.
    void update();

Q_SIGNALS:
    // After each update that had changes to show.
    void updated();

private:
    std::unique_ptr<LiveQueryModelPrivate> d;
};

#endif // DATABASE_LIVEQUERY_H
