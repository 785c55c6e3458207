// make bench-peers: the workloads on the stores a developer would pick
// instead, run alternately with the library's, each run in a child process,
// and the ratio of medians (library / best peer) printed per workload.
//
// The peers: a B-tree map of rows by key beside a B-tree set of
// (price, sequence); SQLite in memory with a primary key and a price index;
// std::stable_sort of row pointers; raw fwrite/fread; zlib's gzip stream;
// ISA-L's CRC. Only this program links them, never the library.

#include "workload_database.h"

#include <absl/container/btree_map.h>
#include <absl/container/btree_set.h>
#include <isa-l/crc64.h>
#include <ql/pricingengines/blackformula.hpp>
#include <sqlite3.h>
#include <zlib.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>

using namespace workload;

namespace {

using Clock = std::chrono::steady_clock;

double since(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// --- B-tree pair --------------------------------------------------------------

struct Value
{
    double price;
    std::int32_t qty;
    char symbol[SymbolLength];
    std::int64_t ts;
    std::uint64_t seq; // arrival order among equal prices
};

struct BTree
{
    absl::btree_map<std::int64_t, Value> rows;
    absl::btree_set<std::pair<double, std::uint64_t>> byPrice;
    std::uint64_t seq = 0;

    void insert(const Row &row)
    {
        Value v{row.price, row.qty, {}, row.ts, seq++};
        std::memcpy(v.symbol, row.symbol, SymbolLength);
        if (rows.emplace(row.key, v).second)
            byPrice.emplace(v.price, v.seq);
    }
    void update(std::int64_t key, double price)
    {
        const auto it = rows.find(key);
        if (it == rows.end())
            return;
        byPrice.erase({it->second.price, it->second.seq});
        it->second.price = price;
        it->second.seq = seq++;
        byPrice.emplace(price, it->second.seq);
    }
    void remove(std::int64_t key)
    {
        const auto it = rows.find(key);
        if (it == rows.end())
            return;
        byPrice.erase({it->second.price, it->second.seq});
        rows.erase(it);
    }
    Digest digest() const
    {
        Digest d;
        for (const auto &entry : rows)
            d.add(entry.first, entry.second.price);
        return d;
    }
};

std::unique_ptr<BTree> filledBTree(int n, bool updated = false)
{
    auto tree = std::make_unique<BTree>();
    for (const Row &row : updated ? updatedRows(n) : drawRows(n))
        tree->insert(row);
    return tree;
}

Result btreeW1(int n)
{
    const std::vector<Row> rows = drawRows(n);
    const double before = residentBytes();
    BTree tree;
    const auto start = Clock::now();
    for (const Row &row : rows)
        tree.insert(row);
    Result result{since(start), static_cast<double>(n), std::to_string(tree.rows.size())};
    result.bytesPerRow = (residentBytes() - before) / n;
    return result;
}

Result btreeW2(int n)
{
    auto tree = filledBTree(n);
    const std::vector<Update> changes = updates(n);
    const auto start = Clock::now();
    for (const Update &u : changes)
        tree->update(u.key, u.price);
    const double seconds = since(start);
    return {seconds, static_cast<double>(n), tree->digest().text()};
}

Result btreeW3(int n)
{
    auto tree = filledBTree(n, true);
    const std::vector<std::int64_t> keys = lookups(n);
    double sum = 0;
    const auto start = Clock::now();
    for (const std::int64_t key : keys)
        sum += tree->rows.find(key)->second.price;
    const double seconds = since(start);
    char check[64];
    std::snprintf(check, sizeof check, "%.2f", sum);
    return {seconds, static_cast<double>(n), check};
}

template <typename Apply>
Result w4With(int n, Apply apply, const std::function<Digest()> &digest)
{
    std::vector<Row> inserted;
    const auto all = batches(n, inserted);
    const auto start = Clock::now();
    size_t next = 0;
    for (const auto &changes : all)
        apply(changes, inserted, next);
    const double seconds = since(start);
    return {seconds, static_cast<double>(BatchCount) * (BatchUpdates + BatchInserts + BatchRemovals),
            digest().text()};
}

Result btreeW4(int n)
{
    auto tree = filledBTree(n, true);
    return w4With(
        n,
        [&](const std::vector<Change> &changes, const std::vector<Row> &inserted, size_t &next) {
            for (const Change &c : changes) {
                if (c.kind == Change::Update)
                    tree->update(c.key, c.price);
                else if (c.kind == Change::Insert)
                    tree->insert(inserted[next++]);
                else
                    tree->remove(c.key);
            }
        },
        [&] { return tree->digest(); });
}

// --- std::stable_sort -----------------------------------------------------------

// Row blocks as the library lays them out would be; the sort sees pointers.
struct Block
{
    std::int64_t key;
    double price;
    char rest[48];
};

Result stableSortW5(int n, bool scrambled)
{
    const std::vector<Row> rows = drawRows(n);
    std::vector<std::unique_ptr<Block>> blocks;
    blocks.reserve(rows.size());
    std::vector<Block *> order;
    for (const Row &row : rows) {
        blocks.push_back(std::make_unique<Block>());
        blocks.back()->key = row.key;
        blocks.back()->price = row.price;
        order.push_back(blocks.back().get());
    }
    auto byPrice = [](const Block *a, const Block *b) { return a->price < b->price; };
    std::stable_sort(order.begin(), order.end(), byPrice); // as the index stands after W1
    if (scrambled) {
        const std::vector<Update> changes = updates(n);
        for (int i = 0; i < n; ++i)
            order[static_cast<size_t>(i)]->price = changes[static_cast<size_t>(i)].price;
    }
    const auto start = Clock::now();
    std::stable_sort(order.begin(), order.end(), byPrice);
    const double seconds = since(start);
    std::uint64_t digest = 0;
    for (const Block *b : order)
        digest = digest * 1000003 + static_cast<std::uint64_t>(b->key);
    char check[64];
    std::snprintf(check, sizeof check, "%016" PRIx64, digest);
    return {seconds, static_cast<double>(n), check};
}

// --- SQLite in memory ------------------------------------------------------------

struct Sqlite
{
    sqlite3 *db = nullptr;
    Sqlite()
    {
        if (sqlite3_open(":memory:", &db) != SQLITE_OK)
            throw std::runtime_error("sqlite open");
        exec("CREATE TABLE trades(key INTEGER PRIMARY KEY, price REAL, qty INTEGER, symbol TEXT, ts INTEGER)");
        exec("CREATE INDEX trades_price ON trades(price)");
    }
    ~Sqlite() { sqlite3_close(db); }
    void exec(const char *sql)
    {
        char *error = nullptr;
        if (sqlite3_exec(db, sql, nullptr, nullptr, &error) != SQLITE_OK) {
            const std::string message = error ? error : "?";
            sqlite3_free(error);
            throw std::runtime_error(message);
        }
    }
    sqlite3_stmt *prepare(const char *sql)
    {
        sqlite3_stmt *statement = nullptr;
        if (sqlite3_prepare_v2(db, sql, -1, &statement, nullptr) != SQLITE_OK)
            throw std::runtime_error(sqlite3_errmsg(db));
        return statement;
    }
    void insert(sqlite3_stmt *s, const Row &row)
    {
        sqlite3_bind_int64(s, 1, row.key);
        sqlite3_bind_double(s, 2, row.price);
        sqlite3_bind_int(s, 3, row.qty);
        sqlite3_bind_text(s, 4, row.symbol, SymbolLength, SQLITE_STATIC);
        sqlite3_bind_int64(s, 5, row.ts);
        sqlite3_step(s);
        sqlite3_reset(s);
    }
    Digest digest()
    {
        Digest d;
        sqlite3_stmt *s = prepare("SELECT key, price FROM trades");
        while (sqlite3_step(s) == SQLITE_ROW)
            d.add(sqlite3_column_int64(s, 0), sqlite3_column_double(s, 1));
        sqlite3_finalize(s);
        return d;
    }
};

void sqliteFill(Sqlite &db, const std::vector<Row> &rows)
{
    db.exec("BEGIN");
    sqlite3_stmt *s = db.prepare("INSERT INTO trades VALUES(?,?,?,?,?)");
    for (const Row &row : rows)
        db.insert(s, row);
    sqlite3_finalize(s);
    db.exec("COMMIT");
}

Result sqliteW1(int n)
{
    const std::vector<Row> rows = drawRows(n);
    const double before = residentBytes();
    Sqlite db;
    const auto start = Clock::now();
    sqliteFill(db, rows);
    Result result{since(start), static_cast<double>(n), std::to_string(n)};
    result.bytesPerRow = (residentBytes() - before) / n;
    return result;
}

Result sqliteW2(int n)
{
    Sqlite db;
    sqliteFill(db, drawRows(n));
    const std::vector<Update> changes = updates(n);
    const auto start = Clock::now();
    db.exec("BEGIN");
    sqlite3_stmt *s = db.prepare("UPDATE trades SET price = ? WHERE key = ?");
    for (const Update &u : changes) {
        sqlite3_bind_double(s, 1, u.price);
        sqlite3_bind_int64(s, 2, u.key);
        sqlite3_step(s);
        sqlite3_reset(s);
    }
    sqlite3_finalize(s);
    db.exec("COMMIT");
    const double seconds = since(start);
    return {seconds, static_cast<double>(n), db.digest().text()};
}

Result sqliteW3(int n)
{
    Sqlite db;
    sqliteFill(db, updatedRows(n));
    const std::vector<std::int64_t> keys = lookups(n);
    sqlite3_stmt *s = db.prepare("SELECT price FROM trades WHERE key = ?");
    double sum = 0;
    const auto start = Clock::now();
    for (const std::int64_t key : keys) {
        sqlite3_bind_int64(s, 1, key);
        if (sqlite3_step(s) == SQLITE_ROW)
            sum += sqlite3_column_double(s, 0);
        sqlite3_reset(s);
    }
    const double seconds = since(start);
    sqlite3_finalize(s);
    char check[64];
    std::snprintf(check, sizeof check, "%.2f", sum);
    return {seconds, static_cast<double>(n), check};
}

Result sqliteW4(int n)
{
    Sqlite db;
    sqliteFill(db, updatedRows(n));
    sqlite3_stmt *update = db.prepare("UPDATE trades SET price = ? WHERE key = ?");
    sqlite3_stmt *insert = db.prepare("INSERT INTO trades VALUES(?,?,?,?,?)");
    sqlite3_stmt *remove = db.prepare("DELETE FROM trades WHERE key = ?");
    Result result = w4With(
        n,
        [&](const std::vector<Change> &changes, const std::vector<Row> &inserted, size_t &next) {
            db.exec("BEGIN");
            for (const Change &c : changes) {
                if (c.kind == Change::Update) {
                    sqlite3_bind_double(update, 1, c.price);
                    sqlite3_bind_int64(update, 2, c.key);
                    sqlite3_step(update);
                    sqlite3_reset(update);
                } else if (c.kind == Change::Insert) {
                    db.insert(insert, inserted[next++]);
                } else {
                    sqlite3_bind_int64(remove, 1, c.key);
                    sqlite3_step(remove);
                    sqlite3_reset(remove);
                }
            }
            db.exec("COMMIT");
        },
        [&] { return db.digest(); });
    sqlite3_finalize(update);
    sqlite3_finalize(insert);
    sqlite3_finalize(remove);
    return result;
}

long long fileSize(const std::string &path)
{
    FILE *file = std::fopen(path.c_str(), "rb");
    if (!file)
        return -1;
    std::fseek(file, 0, SEEK_END);
    const long long size = std::ftell(file);
    std::fclose(file);
    return size;
}

// Saves to or loads from a file through the backup API: the nearest SQLite
// has to the library's table files.
Result sqliteW6(int n, bool save)
{
    const std::string folder = scratchFolder();
    const std::string path = folder + "/trades.db";
    auto copy = [](sqlite3 *from, sqlite3 *to) {
        sqlite3_backup *backup = sqlite3_backup_init(to, "main", from, "main");
        sqlite3_backup_step(backup, -1);
        sqlite3_backup_finish(backup);
    };
    Result result;
    {
        Sqlite db;
        sqliteFill(db, drawRows(n));
        sqlite3 *file = nullptr;
        sqlite3_open(path.c_str(), &file);
        const auto start = Clock::now();
        copy(db.db, file);
        sqlite3_close(file);
        if (save)
            result.seconds = since(start);
    }
    if (!save) {
        settleHeap();
        sqlite3 *memory = nullptr;
        sqlite3_open(":memory:", &memory);
        const auto start = Clock::now();
        sqlite3 *file = nullptr;
        sqlite3_open(path.c_str(), &file);
        copy(file, memory);
        sqlite3_close(file);
        result.seconds = since(start);
        sqlite3_close(memory);
    }
    std::remove(path.c_str());
    std::remove(folder.c_str());
    result.items = n;
    result.check = "-";
    return result;
}

// --- Raw files and zlib's gzip stream ---------------------------------------------

// The bytes the library writes per row: its record length.
constexpr int RecordLength = 8 + 8 + 4 + 2 * SymbolLength + 8 + 1;

Result fileW6(int n, bool gzip, bool save)
{
    const std::string folder = scratchFolder();
    const std::string path = folder + "/trades";
    const std::vector<Row> rows = drawRows(n);
    // Rows as separate blocks, as a store keeps them.
    std::vector<std::unique_ptr<unsigned char[]>> blocks;
    // The same bytes as the library's records: the slots, then the null bits.
    for (const Row &row : rows) {
        blocks.emplace_back(new unsigned char[RecordLength]());
        unsigned char *b = blocks.back().get();
        std::memcpy(b, &row.key, 8);
        std::memcpy(b + 8, &row.price, 8);
        std::memcpy(b + 16, &row.qty, 4);
        for (int c = 0; c < SymbolLength; ++c)
            b[20 + 2 * c] = static_cast<unsigned char>(row.symbol[c]);
        std::memcpy(b + 20 + 2 * SymbolLength, &row.ts, 8);
        b[RecordLength - 1] = 0x1F;
    }
    Result result;
    {
        const auto start = Clock::now();
        if (gzip) {
            gzFile file = gzopen(path.c_str(), "wb6");
            for (const auto &block : blocks)
                gzwrite(file, block.get(), RecordLength);
            gzclose(file);
        } else {
            FILE *file = std::fopen(path.c_str(), "wb");
            for (const auto &block : blocks)
                std::fwrite(block.get(), 1, RecordLength, file);
            std::fclose(file);
        }
        if (save)
            result.seconds = since(start);
    }
    if (!save) {
        blocks.clear();
        settleHeap();
        const auto start = Clock::now();
        if (gzip) {
            gzFile file = gzopen(path.c_str(), "rb");
            for (int i = 0; i < n; ++i) {
                blocks.emplace_back(new unsigned char[RecordLength]);
                gzread(file, blocks.back().get(), RecordLength);
            }
            gzclose(file);
        } else {
            FILE *file = std::fopen(path.c_str(), "rb");
            for (int i = 0; i < n; ++i) {
                blocks.emplace_back(new unsigned char[RecordLength]);
                if (std::fread(blocks.back().get(), 1, RecordLength, file) != RecordLength)
                    break;
            }
            std::fclose(file);
        }
        result.seconds = since(start);
    }
    result.check = std::to_string(fileSize(path));
    std::remove(path.c_str());
    std::remove(folder.c_str());
    result.items = n;
    return result;
}

// --- W8: option prices and implied volatilities ----------------------------

// Black-76 without discounting on the C library's erfc: the loop a developer
// writes first.
double blackCall(const Quote &q, double sigma)
{
    const double s = sigma * std::sqrt(q.T);
    const double d1 = (std::log(q.F / q.K) + 0.5 * s * s) / s;
    return q.F * 0.5 * std::erfc(-d1 * M_SQRT1_2) - q.K * 0.5 * std::erfc(-(d1 - s) * M_SQRT1_2);
}

double blackPrice(const Quote &q)
{
    return blackCall(q, q.sigma);
}

double quantlibPrice(const Quote &q)
{
    return QuantLib::blackFormula(QuantLib::Option::Call, q.K, q.F, q.sigma * std::sqrt(q.T));
}

double quantlibImplied(const Quote &q, double price)
{
    try {
        return QuantLib::blackFormulaImpliedStdDev(QuantLib::Option::Call, q.K, q.F, price, 1.0, 0.0,
                                                   QuantLib::Null<QuantLib::Real>(), 1e-8, 100)
            / std::sqrt(q.T);
    } catch (const std::exception &) {
        return -1;
    }
}

// Newton's method on the exact vega from 50%, as plain as it gets.
double newtonImplied(const Quote &q, double price)
{
    const double sqrtT = std::sqrt(q.T);
    double sigma = 0.5;
    for (int i = 0; i < 100; ++i) {
        const double diff = blackCall(q, sigma) - price;
        if (std::fabs(diff) <= 1e-8)
            return sigma;
        const double d1 = (std::log(q.F / q.K) + 0.5 * sigma * sigma * q.T) / (sigma * sqrtT);
        const double vega = q.F * sqrtT * std::exp(-0.5 * d1 * d1) / std::sqrt(2 * M_PI);
        if (vega <= 1e-12)
            return -1;
        sigma -= diff / vega;
        if (sigma <= 0)
            return -1;
    }
    return -1;
}

// W9 on the streaming engine peer: the rows and the first 100,000 of W2's
// updates go to a file that bench/perspective/w9.mjs reads in Node.js,
// which times the same steps and prints "seconds items check".
Result perspectiveW9(int n, const char *mode)
{
    const std::vector<Row> rows = drawRows(n);
    const std::vector<Update> all = updates(n);
    const int m = std::min(n, 100000);
    const std::string path = scratchFolder() + "/w9-peer.bin";
    {
        std::vector<double> price(n), ts(n), updatePrice(m);
        std::vector<std::int32_t> qty(n), updateRow(m);
        std::vector<char> symbols(static_cast<size_t>(n) * SymbolLength);
        for (int i = 0; i < n; ++i) {
            price[i] = rows[i].price;
            ts[i] = static_cast<double>(rows[i].ts);
            qty[i] = rows[i].qty;
            std::memcpy(&symbols[static_cast<size_t>(i) * SymbolLength], rows[i].symbol, SymbolLength);
        }
        for (int k = 0; k < m; ++k) {
            updateRow[k] = static_cast<std::int32_t>(all[k].row);
            updatePrice[k] = all[k].price;
        }
        std::FILE *file = std::fopen(path.c_str(), "wb");
        if (!file)
            throw std::runtime_error("cannot write " + path);
        const std::int32_t head[4] = {n, m, 0, 0};
        std::fwrite(head, sizeof head, 1, file);
        std::fwrite(price.data(), sizeof(double), price.size(), file);
        std::fwrite(ts.data(), sizeof(double), ts.size(), file);
        std::fwrite(updatePrice.data(), sizeof(double), updatePrice.size(), file);
        std::fwrite(qty.data(), sizeof(std::int32_t), qty.size(), file);
        std::fwrite(updateRow.data(), sizeof(std::int32_t), updateRow.size(), file);
        std::fwrite(symbols.data(), 1, symbols.size(), file);
        std::fclose(file);
    }
    const std::string command = std::string("node ") + PERSPECTIVE_DIR + "/w9.mjs " + path + " " + mode;
    std::FILE *pipe = popen(command.c_str(), "r");
    if (!pipe)
        throw std::runtime_error("cannot run node");
    char line[512] = {};
    std::string last;
    while (std::fgets(line, sizeof line, pipe))
        last = line;
    const int status = pclose(pipe);
    std::remove(path.c_str());
    Result result;
    char check[256] = {};
    if (status != 0 || std::sscanf(last.c_str(), "%lf %lf %255[^\n]", &result.seconds, &result.items, check) != 3)
        throw std::runtime_error("the peer failed (make bench-peers installs it): " + last);
    result.check = check;
    return result;
}

std::vector<Entry> peerEntries()
{
    return {
        {"W1", "absl btree", "rows", btreeW1},
        {"W1", "sqlite memory", "rows", sqliteW1},
        {"W2", "absl btree", "updates", btreeW2},
        {"W2", "sqlite memory", "updates", sqliteW2},
        {"W3", "absl btree", "lookups", btreeW3},
        {"W3", "sqlite memory", "lookups", sqliteW3},
        {"W4", "absl btree", "changes", btreeW4},
        {"W4", "sqlite memory", "changes", sqliteW4},
        {"W5", "std stable_sort", "rows", [](int n) { return stableSortW5(n, false); }},
        {"W5-random", "std stable_sort", "rows", [](int n) { return stableSortW5(n, true); }},
        {"W6-save", "fwrite", "rows", [](int n) { return fileW6(n, false, true); }},
        {"W6-load", "fread", "rows", [](int n) { return fileW6(n, false, false); }},
        {"W6-save", "sqlite backup", "rows", [](int n) { return sqliteW6(n, true); }},
        {"W6-load", "sqlite backup", "rows", [](int n) { return sqliteW6(n, false); }},
        {"W6-save", "zlib gzip", "rows", [](int n) { return fileW6(n, true, true); }},
        {"W6-load", "zlib gzip", "rows", [](int n) { return fileW6(n, true, false); }},
        {"W7", "isa-l", "bytes",
         [](int) {
             // ISA-L's seed is the CRC so far; 0 starts with the all-ones register.
             return checksumRun([](const char *data, std::size_t size) {
                 return crc64_ecma_norm(0, reinterpret_cast<const unsigned char *>(data), size);
             });
         }},
        {"W8-price", "black76 erfc", "prices", [](int n) { return pricingRun(n, blackPrice); }},
        {"W8-price", "quantlib", "prices", [](int n) { return pricingRun(n, quantlibPrice); }},
        {"W8-implied", "quantlib", "volatilities",
         [](int n) { return impliedRun(n / ImpliedShare, blackPrice, quantlibImplied); }},
        {"W8-implied", "plain newton", "volatilities",
         [](int n) { return impliedRun(n / ImpliedShare, blackPrice, newtonImplied); }},
        {"W9-load", "perspective flat", "rows", [](int n) { return perspectiveW9(n, "load-flat"); }},
        {"W9-load", "perspective group", "rows", [](int n) { return perspectiveW9(n, "load-group"); }},
        {"W9-flat", "perspective", "updates", [](int n) { return perspectiveW9(n, "flat"); }},
        {"W9-group", "perspective", "updates", [](int n) { return perspectiveW9(n, "group"); }},
    };
}

// Which library entries a peer entry is measured against: the same workload,
// and for W6 the same compression.
bool comparable(const Entry &library, const Entry &peer)
{
    if (library.workload != peer.workload)
        return false;
    if (library.workload == "W9-load") // a flat view against a flat one
        return (library.peer.find("flat") != std::string::npos) == (peer.peer.find("flat") != std::string::npos);
    const bool gzLibrary = library.peer.find("gz") != std::string::npos;
    const bool gzPeer = peer.peer.find("gzip") != std::string::npos;
    return library.workload.rfind("W6", 0) != 0 || gzLibrary == gzPeer;
}

// The speed goals: a library row against a peer row (empty: the best
// comparable peer; a "database" row: the library against itself).
struct Goal
{
    const char *what;
    std::string workload;
    std::string library;
    std::string peer;
    double target;
};

const std::vector<Goal> &goals()
{
    static const std::vector<Goal> list = {
        {"W1 append, batch", "W1", "database batch", "", 1.0},
        {"W2 price updates, one transaction", "W2", "database batch", "", 0.9},
        {"W4 mixed batches, a transaction each", "W4", "database batch", "", 1.0},
        {"W3 lookups, one search each", "W3", "database row", "", 1.3},
        {"W1 append, row at a time", "W1", "database row", "", 2.5},
        {"W2 price updates, row at a time", "W2", "database row", "", 2.5},
        {"W4 mixed changes, one at a time", "W4", "database row", "", 2.5},
        {"W5 resort() after new prices", "W5-random", "database", "std stable_sort", 1.5},
        {"W6 load, plain, indexes rebuilt", "W6-load", "database", "sqlite backup", 1.0},
        {"W6 save, gzip level 6", "W6-save", "database gz", "zlib gzip", 0.7},
        {"W6 load, gzip, indexes rebuilt", "W6-load", "database gz", "zlib gzip", 1.5},
        {"W10 limit step, watch index's share", "W10", "database limit+watch", "database limit", 1.2},
        // Updates a second 50 and 100 times the peer's: the time of the
        // same 100 batches a fiftieth and a hundredth.
        {"W9 sorted view, 100 batches", "W9-flat", "database", "perspective", 1.0 / 50},
        {"W9 grouped view, 100 batches", "W9-group", "database", "perspective", 1.0 / 100},
        {"W9 building the sorted view", "W9-load", "database flat", "perspective flat", 0.1},
        {"W9 building the grouped view", "W9-load", "database group", "perspective group", 0.1},
    };
    return list;
}

} // namespace

int main(int argc, char **argv)
{
    const Options options = parseOptions(argc, argv);
    const std::vector<Entry> library = databaseEntries();
    const std::vector<Entry> peers = peerEntries();
    std::FILE *out = options.out.empty() ? nullptr : std::fopen(options.out.c_str(), "w");
    if (out)
        std::fprintf(out, "workload\tlibrary\tlibrary_median_s\tpeer\tpeer_median_s\tratio\tchecks\n");
    std::printf("%-9s %-15s %9s  %-15s %9s %7s  %s\n", "workload", "library", "median_s", "best peer", "median_s",
                "ratio", "checks");
    std::vector<std::string> workloads;
    for (const Entry &e : library) {
        if (std::find(workloads.begin(), workloads.end(), e.workload) == workloads.end())
            workloads.push_back(e.workload);
    }
    for (const Entry &e : peers) {
        if (std::find(workloads.begin(), workloads.end(), e.workload) == workloads.end())
            workloads.push_back(e.workload);
    }
    // Medians by workload and row name, library's and peers', for the goals.
    std::map<std::pair<std::string, std::string>, double> medians, bestPeer;
    for (const std::string &workload : workloads) {
        std::vector<const Entry *> ours;
        std::vector<const Entry *> theirs;
        for (const Entry &e : library) {
            if (e.workload == workload && selected(options, e))
                ours.push_back(&e);
        }
        for (const Entry &e : peers) {
            if (e.workload == workload && (options.filter.empty() || workload.find(options.filter) != std::string::npos
                                           || e.peer.find(options.filter) != std::string::npos))
                theirs.push_back(&e);
        }
        if (ours.empty() && theirs.empty())
            continue;
        // Alternate: one run of each entry per round.
        std::map<const Entry *, std::vector<Result>> results;
        for (int r = 0; r < options.reps; ++r) {
            for (const Entry *e : ours)
                results[e].push_back(runIsolated(*e, options.n));
            for (const Entry *e : theirs)
                results[e].push_back(runIsolated(*e, options.n));
        }
        for (const Entry *e : theirs) {
            const Summary s = summarize(results[e]);
            if (s.reps > 0)
                medians[{workload, e->peer}] = s.median;
            std::printf("%-9s %-15s %9s  %-15s %9.4f %7s  %s\n", workload.c_str(), "", "", e->peer.c_str(), s.median,
                        "", s.check.c_str());
        }
        for (const Entry *mine : ours) {
            const Summary s = summarize(results[mine]);
            const Entry *best = nullptr;
            Summary bestSummary;
            for (const Entry *e : theirs) {
                if (!comparable(*mine, *e))
                    continue;
                const Summary p = summarize(results[e]);
                if (p.reps > 0 && (!best || p.median < bestSummary.median)) {
                    best = e;
                    bestSummary = p;
                }
            }
            const double ratio = best && bestSummary.median > 0 ? s.median / bestSummary.median : NAN;
            if (s.reps > 0) {
                medians[{workload, mine->peer}] = s.median;
                if (best)
                    bestPeer[{workload, mine->peer}] = bestSummary.median;
            }
            std::printf("%-9s %-15s %9.4f  %-15s %9.4f %7.2f  %s\n", workload.c_str(), mine->peer.c_str(), s.median,
                        best ? best->peer.c_str() : "-", bestSummary.median, ratio, s.check.c_str());
            if (out)
                std::fprintf(out, "%s\t%s\t%.6f\t%s\t%.6f\t%.3f\t%s\n", workload.c_str(), mine->peer.c_str(), s.median,
                             best ? best->peer.c_str() : "-", bestSummary.median, ratio, s.check.c_str());
            if (s.bytesPerRow > 0 && best && bestSummary.bytesPerRow > 0)
                std::printf("%-9s %-15s %9.0f  %-15s %9.0f %7.2f  resident bytes per row\n", "memory",
                            mine->peer.c_str(), s.bytesPerRow, best->peer.c_str(), bestSummary.bytesPerRow,
                            s.bytesPerRow / bestSummary.bytesPerRow);
        }
        std::fflush(stdout);
    }
    if (out)
        std::fclose(out);

    std::printf("\n%-40s %7s %7s  %s\n", "goal", "ratio", "target", "");
    for (const Goal &goal : goals()) {
        const auto mine = medians.find({goal.workload, goal.library});
        double against = NAN;
        if (goal.peer.empty()) {
            const auto best = bestPeer.find({goal.workload, goal.library});
            if (best != bestPeer.end())
                against = best->second;
        } else {
            const auto peer = medians.find({goal.workload, goal.peer});
            if (peer != medians.end())
                against = peer->second;
        }
        if (mine == medians.end() || !(against > 0))
            continue; // not run (a filter), or failed
        const double ratio = mine->second / against;
        std::printf("%-40s %7.3f %7.3f  %s\n", goal.what, ratio, goal.target,
                    ratio <= goal.target ? "met" : "not met");
    }
    return 0;
}
