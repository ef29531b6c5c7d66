// pghelper: statements (text, formatted, prepared from a printf-like format,
// asynchronous), typed access to results, escaping, COPY, nested
// transactions with savepoints and the column-exists cache, all over the
// current connection of pgConnect.
#include "foundation/pghelper.h"

#include "foundation/logger.h"
#include "foundation/pgConnect.h"
#include "foundation/smartbuffer.h"

#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <sys/select.h>
#include <unistd.h>

namespace {

// ---------------------------------------------------------------- helpers

struct FreeDeleter {
    void operator()(void* p) const { free(p); }
};
using CString = std::unique_ptr<char, FreeDeleter>;

using ResultHolder = pgResultHolder;

// Whether a line at `level` would be written; saves building long lines
// nobody reads. log_level above 99 is the simple writer plus 100.
bool logWanted(int level)
{
    if (log_level >= 200)
        return false;
    int threshold = log_level > 99 ? log_level - 100 : log_level;
    return level <= threshold;
}

// The server's words without the trailing newline libpq leaves on them.
std::string trimmed(const char* message)
{
    std::string text = message ? message : "";
    while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
        text.pop_back();
    return text;
}

bool statusOk(ExecStatusType status)
{
    return status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK || status == PGRES_COPY_IN;
}

// Wraps a libpq result (may be nullptr for pgSend) with its field map.
pgResult* makeResult(PGresult* result)
{
    pgResult* res = static_cast<pgResult*>(calloc(1, sizeof(pgResult)));
    if (res == nullptr) {
        log_printf(0, "%s:%d: Could not allocate pgResult\n", __FILE__, __LINE__);
        return nullptr;
    }
    res->result = result;
    if (result == nullptr)
        return res;
    int columns = PQnfields(result);
    if (columns > 0) {
        res->fieldMap = static_cast<pgFieldMapEntry*>(calloc(static_cast<size_t>(columns), sizeof(pgFieldMapEntry)));
        if (res->fieldMap == nullptr) {
            log_printf(0, "%s:%d: Could not allocate fieldMap\n", __FILE__, __LINE__);
            free(res);
            return nullptr;
        }
        for (int i = 0; i < columns; ++i) {
            res->fieldMap[i].name = PQfname(result, i);
            res->fieldMap[i].column = i;
        }
    }
    res->columnCount = columns;
    return res;
}

// Attaches a finished libpq result to a pgSend handle.
bool attachResult(pgResult* res, PGresult* result)
{
    pgResult* built = makeResult(result);
    if (built == nullptr)
        return false;
    res->result = built->result;
    res->fieldMap = built->fieldMap;
    res->columnCount = built->columnCount;
    free(built);
    return true;
}

// ---------------------------------------------------------- text statements

// PQexec of `text` on the current connection. The libpq result when its
// status is acceptable, otherwise nullptr (logged, result cleared).
PGresult* executeTextQuery(const char* text)
{
    log_printf(4, "%s:%d: Executing query with text: %s\n", __FILE__, __LINE__, text);
    PGresult* result = PQexec(pgResourcePtr->connection, text);
    if (!statusOk(PQresultStatus(result))) {
        std::string why = trimmed(result ? PQresultErrorMessage(result) : PQerrorMessage(pgResourcePtr->connection));
        if (why.empty())
            why = trimmed(PQerrorMessage(pgResourcePtr->connection));
        log_printf(0, "%s:%d: Execution of statement failed: %s.", __FILE__, __LINE__, why.c_str());
        if (text)
            log_printf(0, "%s:%d: Query string was: %s\n", __FILE__, __LINE__, text);
        else
            log_printf(0, "%s:%d: Query string was: [null]\n", __FILE__, __LINE__);
        PQclear(result);
        return nullptr;
    }
    return result;
}

// ------------------------------------------------------- prepared statements

// Type codes of the query cache, one per conversion. 'n' stands before the
// code of a conversion that takes a null flag first.
const char kNullFlagCode = 'n';

struct Conversion {
    size_t length = 0;     // from the '%' to the letter, both included
    bool nullable = false;
    char modifier = 0;     // 0, 'h', 'l', or 'q' for "ll"
    char letter = 0;
};

Conversion readConversion(const char* p)
{
    Conversion c;
    const char* q = p + 1;
    if (*q == 'n') {
        c.nullable = true;
        ++q;
    }
    if (*q == 'h') {
        c.modifier = 'h';
        ++q;
    } else if (*q == 'l') {
        ++q;
        c.modifier = 'l';
        if (*q == 'l') {
            c.modifier = 'q';
            ++q;
        }
    }
    c.letter = *q;
    c.length = static_cast<size_t>(q - p) + (*q ? 1 : 0);
    return c;
}

// The cache's code for a conversion; 0 when it is not one we take.
char typeCode(const Conversion& c)
{
    switch (c.letter) {
    case 's':
        return c.modifier == 0 ? 's' : 0;
    case 'c':
        return c.modifier == 0 ? 'c' : 0;
    case 'd':
        return c.modifier == 'h' ? 'h' : c.modifier == 'l' ? 'l' : c.modifier == 'q' ? 'q' : 'i';
    case 'u':
        return c.modifier == 'h' ? 'H' : c.modifier == 'l' ? 'L' : c.modifier == 'q' ? 'Q' : 'u';
    case 'f':
    case 'g':
        return c.modifier == 0 ? 'f' : c.modifier == 'l' ? 'F' : 0;
    case 'z':
        return c.modifier == 0 && !c.nullable ? 'z' : 0;
    case 'Z':
        return c.modifier == 0 && !c.nullable ? 'Z' : 0;
    default:
        return 0;
    }
}

bool isFloating(char code)
{
    return code == 'f' || code == 'F' || code == 'Z';
}

// A va_list that can be handed to helpers by reference.
struct ArgWalk {
    va_list ap;
};

void skipArgument(ArgWalk& args, char code)
{
    switch (code) {
    case 's':
        (void)va_arg(args.ap, const char*);
        break;
    case 'l':
    case 'L':
    case 'z':
        (void)va_arg(args.ap, long);
        break;
    case 'q':
    case 'Q':
        (void)va_arg(args.ap, long long);
        break;
    case 'f':
    case 'F':
    case 'Z':
        (void)va_arg(args.ap, double);
        break;
    default:
        (void)va_arg(args.ap, int);
        break;
    }
}

// If fmt[i] starts "=" or "!=" followed by blanks and a %n conversion,
// the length of the operator; 0 otherwise.
size_t nullComparisonOperator(const char* fmt, size_t i)
{
    size_t op = 0;
    if (fmt[i] == '!' && fmt[i + 1] == '=')
        op = 2;
    else if (fmt[i] == '=' && (i == 0 || !strchr("<>!:=", fmt[i - 1])) && fmt[i + 1] != '=')
        op = 1;
    if (op == 0)
        return 0;
    size_t j = i + op;
    while (fmt[j] == ' ' || fmt[j] == '\t')
        ++j;
    if (fmt[j] != '%')
        return 0;
    Conversion c = readConversion(fmt + j);
    return c.nullable && typeCode(c) ? op : 0;
}

// Rewrites `fmt` so that a comparison with a NULL argument is valid SQL:
// "= %ns" with a positive flag becomes "IS NULL %z%z" ("!=": IS NOT NULL),
// the two skips eating the flag and the value. Walks the arguments to see
// the flags. A malloc'ed string, or nullptr.
char* transformNullComparisons(const char* fmt, va_list ap)
{
    ArgWalk args;
    va_copy(args.ap, ap);
    smartbuffer out;
    bool walking = true;  // stops at a conversion we cannot read
    for (size_t i = 0; fmt[i] != '\0';) {
        size_t op = walking ? nullComparisonOperator(fmt, i) : 0;
        if (op > 0) {
            size_t j = i + op;
            while (fmt[j] == ' ' || fmt[j] == '\t')
                ++j;
            Conversion c = readConversion(fmt + j);
            char code = typeCode(c);
            int flag = va_arg(args.ap, int);
            skipArgument(args, code);
            if (flag > 0) {
                out.append(op == 2 ? "IS NOT NULL %z" : "IS NULL %z");
                out.append(isFloating(code) ? "%Z" : "%z");
            } else {
                out.append(fmt + i, j - i + c.length);
            }
            i = j + c.length;
            continue;
        }
        if (fmt[i] != '%' || !walking) {
            out.append(fmt + i, 1);
            ++i;
            continue;
        }
        Conversion c = readConversion(fmt + i);
        char code = typeCode(c);
        if (c.letter == '%' && !c.nullable && c.modifier == 0) {
            // literal percent, no argument
        } else if (code == 0) {
            walking = false;
        } else {
            if (c.nullable)
                (void)va_arg(args.ap, int);
            skipArgument(args, code);
        }
        out.append(fmt + i, c.length ? c.length : 1);
        i += c.length ? c.length : 1;
    }
    va_end(args.ap);
    return out.release();
}

// Parses a transformed format into statement text and type codes.
// Returns false (logged) for a conversion that is not ours.
bool parseFormat(const char* key, smartbuffer& statement, smartbuffer& codes, int& paramCount)
{
    paramCount = 0;
    for (size_t i = 0; key[i] != '\0';) {
        if (key[i] != '%') {
            statement.append(key + i, 1);
            ++i;
            continue;
        }
        Conversion c = readConversion(key + i);
        if (c.letter == '%' && !c.nullable && c.modifier == 0) {
            statement.append("%");
            i += c.length;
            continue;
        }
        char code = typeCode(c);
        if (code == 0) {
            log_printf(0, "%s:%d: Invalid format code: %%%c\n", __FILE__, __LINE__, c.letter);
            if (c.modifier)
                log_printf(0, "%s:%d: Modifier was: %c\n", __FILE__, __LINE__, c.modifier == 'q' ? 'l' : c.modifier);
            else
                log_printf(0, "%s:%d: No modifier for format code\n", __FILE__, __LINE__);
            return false;
        }
        if (c.nullable)
            codes.append(&kNullFlagCode, 1);
        codes.append(&code, 1);
        if (code != 'z' && code != 'Z')
            statement.appendf("$%d", ++paramCount);
        i += c.length;
    }
    return !statement.failed() && !codes.failed();
}

int findCachedQuery(const pgResource* res, const char* key)
{
    for (int i = res->queryCount - 1; i >= 0; --i)
        if (strcmp(res->queryCache[i].key, key) == 0)
            return i;
    return -1;
}

bool growQueryCache(pgResource* res)
{
    if (res->queryCount < res->queryCapacity)
        return true;
    int capacity = res->queryCapacity + PG_QUERY_CACHE_STEP;
    void* bigger = realloc(res->queryCache, static_cast<size_t>(capacity) * sizeof(pgQueryCacheEntry));
    if (bigger == nullptr) {
        log_printf(0, "%s:%d: Could not grow query buffer size\n", __FILE__, __LINE__);
        return false;
    }
    res->queryCache = static_cast<pgQueryCacheEntry*>(bigger);
    res->queryCapacity = capacity;
    return true;
}

// Parses, prepares (with the prepared flag) and stores `key`. The index of
// the new entry, or -1 (logged).
int prepareQuery(pgResource* res, const char* key)
{
    log_printf(4, "%s:%d: Query not in cache, preparing...\n", __FILE__, __LINE__);
    smartbuffer statement;
    smartbuffer codes;
    int paramCount = 0;
    if (!parseFormat(key, statement, codes, paramCount))
        return -1;
    log_printf(5, "%s:%d: Parameter count: %d, query string: %s\n", __FILE__, __LINE__, paramCount, statement.c_str());
    if (!growQueryCache(res))
        return -1;
    int index = res->queryCount;
    if (res->prepared) {
        log_printf(5, "%s:%d: Storing as a prepared statement\n", __FILE__, __LINE__);
        char name[16];
        snprintf(name, sizeof(name), "%d", index);
        // Parameter types are left to the server to infer.
        PGresult* prepared = PQprepare(res->connection, name, statement.c_str(), paramCount, nullptr);
        bool ok = PQresultStatus(prepared) == PGRES_COMMAND_OK;
        if (!ok) {
            log_printf(0, "%s:%d: Postgres error: %s.", __FILE__, __LINE__,
                       trimmed(prepared ? PQresultErrorMessage(prepared) : PQerrorMessage(res->connection)).c_str());
            log_printf(0, "%s:%d: Call to prepareQuery failed\n", __FILE__, __LINE__);
            log_printf(0, "%s:%d: Query was: %s\n", __FILE__, __LINE__, statement.c_str());
        }
        PQclear(prepared);
        if (!ok)
            return -1;
    }
    log_printf(5, "%s:%d: Query parsing ok, storing in query buffer\n", __FILE__, __LINE__);
    pgQueryCacheEntry& entry = res->queryCache[index];
    entry.key = strdup(key);
    entry.codeCount = static_cast<int>(codes.length());
    entry.paramCount = paramCount;
    entry.statement = statement.release();
    entry.typeCodes = codes.release();
    if (!entry.key || !entry.statement || !entry.typeCodes) {
        log_printf(0, "%s:%d: Could not append to query buffers\n", __FILE__, __LINE__);
        free(entry.key);
        free(entry.statement);
        free(entry.typeCodes);
        return -1;
    }
    res->queryCount++;
    log_printf(5, "%s:%d: Query parsed and stored successfully, index '%d'\n", __FILE__, __LINE__, index);
    return index;
}

bool growParams(pgResource* res, int count)
{
    if (count <= res->paramCapacity)
        return true;
    int capacity = (count + PG_PARAM_STEP - 1) / PG_PARAM_STEP * PG_PARAM_STEP;
    size_t n = static_cast<size_t>(capacity);
    auto* values = static_cast<const char**>(realloc(res->paramValues, n * sizeof(char*)));
    if (values)
        res->paramValues = values;
    auto* offsets = static_cast<int*>(realloc(res->paramOffsets, n * sizeof(int)));
    if (offsets)
        res->paramOffsets = offsets;
    auto* flags = static_cast<int*>(realloc(res->paramFlags, n * sizeof(int)));
    if (flags)
        res->paramFlags = flags;
    if (!values || !offsets || !flags) {
        log_printf(0, "%s:%d: Cannot allocate memory in query buffer\n", __FILE__, __LINE__);
        return false;
    }
    res->paramCapacity = capacity;
    return true;
}

// Appends one argument's text to the parameter text. Returns false for a
// NULL (nothing appended).
bool formatArgument(smartbuffer& text, ArgWalk& args, char code)
{
    switch (code) {
    case 's': {
        const char* value = va_arg(args.ap, const char*);
        if (value == nullptr)
            return false;
        text.append(value);
        break;
    }
    case 'c':
        text.appendf("%c", static_cast<char>(va_arg(args.ap, int)));
        break;
    case 'h':
        text.appendf("%hd", static_cast<short>(va_arg(args.ap, int)));
        break;
    case 'H':
        text.appendf("%hu", static_cast<unsigned short>(va_arg(args.ap, int)));
        break;
    case 'i':
        text.appendf("%d", va_arg(args.ap, int));
        break;
    case 'u':
        text.appendf("%u", va_arg(args.ap, unsigned));
        break;
    case 'l':
        text.appendf("%ld", va_arg(args.ap, long));
        break;
    case 'L':
        text.appendf("%lu", va_arg(args.ap, unsigned long));
        break;
    case 'q':
        text.appendf("%lld", va_arg(args.ap, long long));
        break;
    case 'Q':
        text.appendf("%llu", va_arg(args.ap, unsigned long long));
        break;
    case 'f':
        text.appendf("%f", va_arg(args.ap, double));
        break;
    case 'F':
        text.appendf("%lf", va_arg(args.ap, double));
        break;
    }
    return true;
}

// Formats the arguments by the entry's codes into the resource's parameter
// text and arrays. false (logged) when memory ran out.
bool bindParameters(pgResource* res, const pgQueryCacheEntry& entry, va_list ap)
{
    if (!growParams(res, entry.paramCount))
        return false;
    ArgWalk args;
    va_copy(args.ap, ap);
    res->paramText.reset();
    int param = 0;
    for (int k = 0; k < entry.codeCount; ++k) {
        bool isNull = false;
        char code = entry.typeCodes[k];
        if (code == kNullFlagCode) {
            isNull = va_arg(args.ap, int) > 0;
            code = entry.typeCodes[++k];
        }
        if (code == 'z' || code == 'Z') {
            skipArgument(args, code);
            continue;
        }
        int offset = -1;
        if (isNull) {
            skipArgument(args, code);
        } else {
            size_t at = res->paramText.length();
            if (formatArgument(res->paramText, args, code)) {
                res->paramText.append("", 1);  // each text ends in its own NUL
                offset = static_cast<int>(at);
            }
        }
        res->paramOffsets[param] = offset;
        res->paramFlags[param] = 0;
        ++param;
    }
    va_end(args.ap);
    if (res->paramText.failed()) {
        log_printf(0, "%s:%d: Cannot allocate memory in query buffer\n", __FILE__, __LINE__);
        return false;
    }
    // Offsets become pointers only now: the text may have moved as it grew.
    const char* base = res->paramText.c_str();
    for (int i = 0; i < entry.paramCount; ++i)
        res->paramValues[i] = res->paramOffsets[i] < 0 ? nullptr : base + res->paramOffsets[i];
    res->paramCount = entry.paramCount;
    return true;
}

void logParameters(int level, const pgResource* res)
{
    if (!logWanted(level))
        return;
    smartbuffer line;
    line.appendf("Query parameters [%d]: ", res->paramCount);
    for (int i = 0; i < res->paramCount; ++i) {
        if (res->paramValues[i])
            line.appendf("$%d: \"%s\"  ", i + 1, res->paramValues[i]);
        else
            line.appendf("$%d: (null)  ", i + 1);
    }
    log_printf(level, "%s\n", line.c_str());
}

// Runs cache entry `index` with the bound parameters. The libpq result, or
// nullptr (logged).
PGresult* executePrepared(pgResource* res, int index)
{
    const pgQueryCacheEntry& entry = res->queryCache[index];
    log_printf(4, "%s:%d: Executing query with index %d, text: %s\n", __FILE__, __LINE__, index, entry.statement);
    logParameters(4, res);
    PGresult* result;
    if (res->prepared) {
        char name[16];
        snprintf(name, sizeof(name), "%d", index);
        result = PQexecPrepared(res->connection, name, res->paramCount, res->paramValues, nullptr,
                                res->paramFlags, 0);
    } else {
        result = PQexecParams(res->connection, entry.statement, res->paramCount, nullptr, res->paramValues,
                              nullptr, res->paramFlags, 0);
    }
    if (statusOk(PQresultStatus(result)))
        return result;
    std::string why = trimmed(result ? PQresultErrorMessage(result) : PQerrorMessage(res->connection));
    log_printf(0, "%s:%d: Execution of statement with index %d failed: %s.", __FILE__, __LINE__, index, why.c_str());
    if (entry.statement)
        log_printf(0, "%s:%d: Query string was: %s\n", __FILE__, __LINE__, entry.statement);
    else
        log_printf(0, "%s:%d: Query string was: [unknown]\n", __FILE__, __LINE__);
    logParameters(0, res);
    PQclear(result);
    return nullptr;
}

pgResult* runQuery(const char* fmt, va_list ap)
{
    if (pgEnsureConnected() != 0)
        return nullptr;
    pgResource* res = pgResourcePtr;
    CString key(transformNullComparisons(fmt, ap));
    if (!key) {
        log_printf(0, "%s:%d: transformNullComparisons returned null\n", __FILE__, __LINE__);
        return nullptr;
    }
    log_printf(5, "%s:%d: Input format string:  %s\n", __FILE__, __LINE__, fmt);
    log_printf(5, "%s:%d: Output format string: %s\n", __FILE__, __LINE__, key.get());
    int index = findCachedQuery(res, key.get());
    if (index < 0)
        index = prepareQuery(res, key.get());
    if (index < 0)
        return nullptr;
    if (!bindParameters(res, res->queryCache[index], ap))
        return nullptr;
    PGresult* result = executePrepared(res, index);
    if (result == nullptr) {
        log_printf(0, "%s:%d: executePrepared returned null result\n", __FILE__, __LINE__);
        return nullptr;
    }
    pgResult* out = makeResult(result);
    if (out == nullptr)
        PQclear(result);
    return out;
}

// ---------------------------------------------------------------- accessors

// Finds the text of (row, column). Logs the first set of failure words and
// returns false when the result, the column or the row is not there.
bool getTextValue(const pgResult* res, int row, const char* column, const char** text, int* colno)
{
    *text = nullptr;
    if (res == nullptr || res->result == nullptr) {
        log_printf(0, "%s:%d: Cannot fetch value for null query result!\n", __FILE__, __LINE__);
        return false;
    }
    if (column == nullptr) {
        log_printf(0, "%s:%d: Invalid null column name\n", __FILE__, __LINE__);
        return false;
    }
    if (PQresultStatus(res->result) != PGRES_TUPLES_OK) {
        std::string why = trimmed(PQresultErrorMessage(res->result));
        log_printf(0, "%s:%d: Postgres error: %s.", __FILE__, __LINE__,
                   why.empty() ? PQresStatus(PQresultStatus(res->result)) : why.c_str());
        return false;
    }
    *colno = -1;
    for (int i = 0; i < res->columnCount; ++i) {
        if (strcmp(res->fieldMap[i].name, column) == 0) {
            *colno = res->fieldMap[i].column;
            break;
        }
    }
    if (*colno < 0) {
        log_printf(0, "%s:%d: Invalid column name: '%s'\n", __FILE__, __LINE__, column);
        return false;
    }
    if (row < 0 || row >= PQntuples(res->result))
        return false;
    *text = PQgetvalue(res->result, row, *colno);
    return true;
}

// The text for an accessor: logs "getTextValue() failed" or "returned
// null text string" and sets the error field when there is none.
const char* fetchText(pgResult* res, int row, const char* column)
{
    const char* text = nullptr;
    int colno = -1;
    if (!getTextValue(res, row, column, &text, &colno)) {
        log_printf(0, "%s:%d: Could not retrieve value for row %d, col %s: getTextValue() failed\n", __FILE__,
                   __LINE__, row, column ? column : "(null)");
        if (res)
            res->error = -1;
        return nullptr;
    }
    if (text == nullptr) {
        log_printf(0, "%s:%d: Could not retrieve value for row %d, col %s: getTextValue() returned null text string\n",
                   __FILE__, __LINE__, row, column);
        res->error = -1;
        return nullptr;
    }
    log_printf(4, "%s:%d: row %d, col %d(%.32s): '%s'\n", __FILE__, __LINE__, row, colno, column, text);
    return text;
}

// Text for a number: nullptr, with the error field set, for a failed fetch,
// SQL NULL or an empty value (only the failed fetch is logged).
const char* numberText(pgResult* res, int row, const char* column)
{
    const char* text = fetchText(res, row, column);
    if (text == nullptr)
        return nullptr;
    if (*text == '\0') {
        res->error = -1;
        return nullptr;
    }
    return text;
}

bool hasDigit(const char* begin, const char* end)
{
    for (const char* p = begin; p < end; ++p)
        if (*p >= '0' && *p <= '9')
            return true;
    return false;
}

// Checks a strto* conversion: false (logged, error field set) when it
// stopped before any digit or ran out of range.
bool numberParsed(pgResult* res, int row, const char* column, const char* fn, const char* text, const char* end,
                  int savedErrno)
{
    if (end == text || !hasDigit(text, end)) {
        log_printf(0, "%s:%d: Could not retrieve value for row %d, col %s: invalid value(%.32s) in result\n", __FILE__,
                   __LINE__, row, column, text);
        res->error = -1;
        return false;
    }
    if (savedErrno != 0) {
        log_printf(0, "%s:%d: Could not retrieve value for row %d, col %s: %s(%.32s) failed with errno %d: %s\n",
                   __FILE__, __LINE__, row, column, fn, text, savedErrno, strerror(savedErrno));
        res->error = -1;
        return false;
    }
    return true;
}

// --------------------------------------------------------------- transactions

// Runs a statement whose result is only tested. 0/-1.
int execSimple(const char* text)
{
    ResultHolder res(pgExec(text));
    return pgStatus(res.get()) == 0 ? 0 : -1;
}

// COMMIT of a transaction that had failed answers with the tag ROLLBACK:
// nothing was committed, and the caller must hear so.
int execCommit()
{
    ResultHolder res(pgExec("COMMIT;"));
    if (pgStatus(res.get()) != 0)
        return -1;
    return strcmp(PQcmdStatus(res->result), "ROLLBACK") == 0 ? -1 : 0;
}

bool connectionUsable()
{
    return pgResourcePtr && pgResourcePtr->connection && pgResourcePtr->ownerPid == getpid() &&
           PQstatus(pgResourcePtr->connection) == CONNECTION_OK;
}

int popSavepoint(int commit, int id)
{
    char statement[64];
    int rc = 0;
    if (!commit) {
        snprintf(statement, sizeof(statement), "ROLLBACK TO SAVEPOINT pghelper_savepoint_%d", id);
        rc = execSimple(statement);
    }
    if (rc == 0) {
        snprintf(statement, sizeof(statement), "RELEASE SAVEPOINT pghelper_savepoint_%d", id);
        rc = execSimple(statement);
    }
    if (rc != 0) {
        log_printf(0, "%s:%d: Failed to %s transaction or %s savepoint\n", __FILE__, __LINE__,
                   commit ? "commit" : "roll back", commit ? "release" : "roll back to and release");
        return -1;
    }
    if (pgResourcePtr)
        pgResourcePtr->savepointCount = id - 1;
    log_printf(3, "%s:%d: pgPopTransaction was successful; %sreleased savepoint %d\n", __FILE__, __LINE__,
               commit ? "" : "rolled back to and ", id);
    return 0;
}

// -------------------------------------------------------------- column cache

bool cecArgumentsOk(const char* table, const char* column)
{
    if (pgResourcePtr == nullptr) {
        log_printf(0, "%s:%d: no pgResourcePtr\n", __FILE__, __LINE__);
        return false;
    }
    if (table == nullptr) {
        log_printf(0, "%s:%d: table is NULL\n", __FILE__, __LINE__);
        return false;
    }
    if (column == nullptr) {
        log_printf(0, "%s:%d: column is NULL\n", __FILE__, __LINE__);
        return false;
    }
    if (*table == '\0' || *column == '\0') {
        log_printf(0, "%s:%d: table or column name length is zero\n", __FILE__, __LINE__);
        return false;
    }
    return true;
}

pgCECentry* cecFind(const char* table, const char* column)
{
    pgResource* res = pgResourcePtr;
    for (int i = 0; res && res->cecTable && i < res->cecCount; ++i)
        if (strcmp(res->cecTable[i].table, table) == 0 && strcmp(res->cecTable[i].column, column) == 0)
            return &res->cecTable[i];
    return nullptr;
}

pgCECentry* cecInit()
{
    return static_cast<pgCECentry*>(calloc(PG_CEC_SIZE, sizeof(pgCECentry)));
}

} // namespace

// ---------------------------------------------------------- public interface

int pgServerVersion()
{
    pgSignalGuard masked;
    if (pgEnsureConnected() != 0)
        return 0;
    if (pgResourcePtr->serverVersion)
        return pgResourcePtr->serverVersion;
    ResultHolder res(pgExec("SHOW server_version;"));
    if (pgStatus(res.get()) != 0 || PQntuples(res->result) < 1)
        return 0;
    int major = 0, minor = 0, patch = 0;
    // Releases since 10 say "15.6": two parts, which this reading answers
    // with 0, as it always has.
    if (sscanf(PQgetvalue(res->result, 0, 0), "%d.%d.%d", &major, &minor, &patch) != 3)
        return 0;
    pgResourcePtr->serverVersion = (major << 16) + (minor << 8) + patch;
    log_printf(4, "%s:%d: PostgreSQL version %06x\n", __FILE__, __LINE__, pgResourcePtr->serverVersion);
    return pgResourcePtr->serverVersion;
}

pgResult* pgExec(const char* text)
{
    pgSignalGuard masked;
    if (pgEnsureConnected() != 0)
        return nullptr;
    if (text == nullptr) {
        log_printf(0, "%s:%d: Query string was: [null]\n", __FILE__, __LINE__);
        return nullptr;
    }
    PGresult* result = executeTextQuery(text);
    if (result == nullptr) {
        log_printf(0, "%s:%d: executeTextQuery returned null result\n", __FILE__, __LINE__);
        return nullptr;
    }
    pgResult* res = makeResult(result);
    if (res == nullptr)
        PQclear(result);
    return res;
}

namespace {

// Formats a statement onto the heap; nullptr (logged) when out of memory.
CString formatOnHeap(const char* fmt, va_list ap)
{
    char* text = nullptr;
    if (vasprintf(&text, fmt, ap) < 0) {
        log_printf(0, "%s:%d: Could not allocate query string\n", __FILE__, __LINE__);
        return nullptr;
    }
    return CString(text);
}

// Formats a statement into a fixed buffer. False, with "Query too long for
// buffer" logged for the caller's file and line, when it does not fit.
bool formatIntoBuffer(char* buf, size_t size, const char* file, int line, const char* fmt, va_list ap)
{
    int n = buf && size > 0 ? vsnprintf(buf, size, fmt, ap) : -1;
    if (n <= 0 || static_cast<size_t>(n) >= size) {
        log_printf(0, "%s:%d: Query too long for buffer", file, line);
        return false;
    }
    return true;
}

} // namespace

pgResult* pgVExec(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    CString text = formatOnHeap(fmt, ap);
    va_end(ap);
    return text ? pgExec(text.get()) : nullptr;
}

int pgFormatQuery(char* buf, size_t size, const char* file, int line, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    bool fits = formatIntoBuffer(buf, size, file, line, fmt, ap);
    va_end(ap);
    return fits ? 0 : -1;
}

pgResult* pgSExec(char* buf, size_t size, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    bool fits = formatIntoBuffer(buf, size, __FILE__, __LINE__, fmt, ap);
    va_end(ap);
    return fits ? pgExec(buf) : nullptr;
}

pgResult* pgQuery(const char* fmt, ...)
{
    if (fmt == nullptr || *fmt == '\0') {
        log_printf(0, "%s:%d: Null format string\n", __FILE__, __LINE__);
        return nullptr;
    }
    pgSignalGuard masked;
    va_list ap;
    va_start(ap, fmt);
    pgResult* res = runQuery(fmt, ap);
    va_end(ap);
    return res;
}

pgResult* pgSend(const char* text)
{
    pgSignalGuard masked;
    if (pgEnsureConnected() != 0)
        return nullptr;
    pgResult* res = makeResult(nullptr);
    if (res == nullptr)
        return nullptr;
    res->query = text ? strdup(text) : nullptr;
    if (res->query == nullptr) {
        log_printf(0, "%s:%d: Could not allocate query string\n", __FILE__, __LINE__);
        pgClear(res);
        return nullptr;
    }
    log_printf(4, "%s:%d: Executing query with text: %s\n", __FILE__, __LINE__, text);
    if (!PQsendQuery(pgResourcePtr->connection, text)) {
        log_printf(0, "%s:%d: Execution of statement failed: %s.", __FILE__, __LINE__,
                   trimmed(PQerrorMessage(pgResourcePtr->connection)).c_str());
        log_printf(0, "%s:%d: Query string was: %s\n", __FILE__, __LINE__, text);
        log_printf(0, "%s:%d: sendTextQuery returned null result\n", __FILE__, __LINE__);
        pgClear(res);
        return nullptr;
    }
    return res;
}

pgResult* pgVSend(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    CString text = formatOnHeap(fmt, ap);
    va_end(ap);
    return text ? pgSend(text.get()) : nullptr;
}

namespace {

// Collects the results of a finished pgSend into `res`. Returns 1.
int processAsyncResult(pgResult* res, PGconn* conn)
{
    PGresult* last = nullptr;
    bool failed = false;
    std::string why;
    while (PGresult* next = PQgetResult(conn)) {
        ExecStatusType status = PQresultStatus(next);
        if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
            failed = true;
            why = trimmed(PQresultErrorMessage(next));
        }
        PQclear(last);
        last = next;
    }
    if (failed || last == nullptr) {
        log_printf(0, "%s:%d: Execution of statement failed: %s", __FILE__, __LINE__, why.c_str());
        log_printf(0, "%s:%d: Query string was: %s\n", __FILE__, __LINE__, res->query ? res->query : "[null]");
        // The server answered, so the session itself is fine.
        pgResourcePtr->lastChecked = time(nullptr);
        log_printf(4, "%s:%d: processAsyncResult: updated pgResourcePtr->lastChecked to 'now'\n", __FILE__,
                   __LINE__);
        PQclear(last);
        return 1;
    }
    if (!attachResult(res, last))
        PQclear(last);
    return 1;
}

} // namespace

int pgAsyncWait(pgResult* res, int ms)
{
    if (res == nullptr) {
        log_printf(0, "%s:%d: Execution of query failed\n", __FILE__, __LINE__);
        return 1;
    }
    PGconn* conn = pgResourcePtr ? pgResourcePtr->connection : nullptr;
    int sock = conn ? PQsocket(conn) : -1;
    if (sock < 0) {
        log_printf(2, "%s:%d: No connection to database\n", __FILE__, __LINE__);
        return 1;
    }
    bool waitNeeded;
    {
        pgSignalGuard masked;
        waitNeeded = PQisBusy(conn);
    }
    if (waitNeeded) {
        // Signals stay open while we wait, so a job can be told to stop.
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(sock, &readable);
        struct timeval timeout = {ms / 1000, (ms % 1000) * 1000};
        int ready = select(sock + 1, &readable, nullptr, nullptr, &timeout);
        if (ready == 0) {
            log_printf(5, "%s:%d: Query execution not complete\n", __FILE__, __LINE__);
            errno = 0;
            return 0;
        }
        if (ready < 0) {
            if (errno == EINTR) {
                log_printf(5, "%s:%d: Leaving early; signal arrived\n", __FILE__, __LINE__);
                errno = EINTR;
                return 0;
            }
            log_printf(0, "%s:%d: Failed to read query status: %s\n", __FILE__, __LINE__, strerror(errno));
            return 1;
        }
    }
    pgSignalGuard masked;
    if (!PQconsumeInput(conn)) {
        log_printf(0, "%s:%d: Failed to read query status: %s\n", __FILE__, __LINE__,
                   trimmed(PQerrorMessage(conn)).c_str());
        return 1;
    }
    if (PQisBusy(conn)) {
        log_printf(4, "%s:%d: Execution of query still in progress\n", __FILE__, __LINE__);
        return 0;
    }
    return processAsyncResult(res, conn);
}

int pgAsyncCancel()
{
    pgSignalGuard masked;
    log_printf(0, "%s:%d: Cancelling database query...\n", __FILE__, __LINE__);
    PGconn* conn = pgResourcePtr ? pgResourcePtr->connection : nullptr;
    if (conn == nullptr) {
        log_printf(0, "%s:%d: No connection to send request on\n", __FILE__, __LINE__);
        return -1;
    }
    PGcancel* cancel = PQgetCancel(conn);
    if (cancel == nullptr) {
        log_printf(0, "%s:%d: Failed to generate cancel request\n", __FILE__, __LINE__);
        return -1;
    }
    char errbuf[256];
    int sent = PQcancel(cancel, errbuf, sizeof(errbuf));
    PQfreeCancel(cancel);
    if (!sent) {
        log_printf(0, "%s:%d: Failed to dispatch cancel request: %s\n", __FILE__, __LINE__, errbuf);
        return -1;
    }
    log_printf(2, "%s:%d: Cancel request successfully dispatched\n", __FILE__, __LINE__);
    pgResourcePtr->lastChecked = time(nullptr);
    log_printf(4, "%s:%d: pgAsyncCancel: updated pgResourcePtr->lastChecked to 'now'\n", __FILE__, __LINE__);
    return 0;
}

int pgStatus(const pgResult* res)
{
    if (res == nullptr || res->result == nullptr)
        return -1;
    return statusOk(PQresultStatus(res->result)) ? 0 : -1;
}

int pgClear(pgResult* res)
{
    if (res == nullptr)
        return 0;
    PQclear(res->result);
    free(res->fieldMap);
    free(res->query);
    free(res);
    return 0;
}

int pgClearPtr(pgResult** res)
{
    if (res) {
        pgClear(*res);
        *res = nullptr;
    }
    return 0;
}

int pgTuples(const pgResult* res)
{
    if (res == nullptr || res->result == nullptr) {
        log_printf(0, "%s:%d: Cannot count rows of null query result\n", __FILE__, __LINE__);
        return 0;
    }
    return PQntuples(res->result);
}

long pgCmdTuples(const pgResult* res)
{
    if (res == nullptr || res->result == nullptr)
        return 0;
    const char* text = PQcmdTuples(res->result);
    return text && *text ? strtol(text, nullptr, 10) : 0;
}

const char* pgSVal(pgResult* res, int row, const char* column)
{
    return fetchText(res, row, column);
}

char* pgDupVal(pgResult* res, int row, const char* column)
{
    const char* text = fetchText(res, row, column);
    if (text == nullptr)
        return nullptr;
    char* copy = strdup(text);
    if (copy == nullptr) {
        log_printf(0, "%s:%d: Could not allocate memory to duplicate string for row %d, col %s\n", __FILE__,
                   __LINE__, row, column);
        res->error = -1;
    }
    return copy;
}

int pgBoolVal(pgResult* res, int row, const char* column)
{
    const char* text = numberText(res, row, column);
    if (text == nullptr)
        return 0;
    if (*text == 't')
        return 1;
    if (*text == 'f')
        return 0;
    log_printf(0, "%s:%d: Could not retrieve value for row %d, col %s: invalid value(%.32s) in result\n", __FILE__,
               __LINE__, row, column, text);
    res->error = -1;
    return 0;
}

double pgDoubleVal(pgResult* res, int row, const char* column)
{
    const char* text = numberText(res, row, column);
    if (text == nullptr)
        return 0;
    char* end = nullptr;
    errno = 0;
    double value = strtod(text, &end);
    // strtod says ERANGE for tiny numbers too; only overflow is out of range.
    int err = (errno == ERANGE && std::isinf(value)) ? ERANGE : 0;
    if (!numberParsed(res, row, column, "strtod", text, end, err))
        return 0;
    return value;
}

namespace {

// The integer accessors: strto* in base 10 over the column's text, 0 and
// the failure word (named after `fn`) when the text is not a whole number.
template <typename T>
T integerValue(pgResult* res, int row, const char* column, T (*parse)(const char*, char**, int), const char* fn)
{
    const char* text = numberText(res, row, column);
    if (text == nullptr)
        return 0;
    char* end = nullptr;
    errno = 0;
    T value = parse(text, &end, 10);
    if (!numberParsed(res, row, column, fn, text, end, errno))
        return 0;
    return value;
}

} // namespace

unsigned long pgULongVal(pgResult* res, int row, const char* column)
{
    return integerValue<unsigned long>(res, row, column, strtoul, "strtoul");
}

long long pgLLongVal(pgResult* res, int row, const char* column)
{
    return integerValue<long long>(res, row, column, strtoll, "strtoll");
}

long pgLongVal(pgResult* res, int row, const char* column)
{
    return integerValue<long>(res, row, column, strtol, "strtol");
}

int pgIsNull(pgResult* res, int row, const char* column)
{
    const char* text = nullptr;
    int colno = -1;
    if (!getTextValue(res, row, column, &text, &colno)) {
        log_printf(0, "%s:%d: Could not retrieve value for row %d, col %s: getTextValue() failed\n", __FILE__,
                   __LINE__, row, column ? column : "(null)");
        if (res)
            res->error = -1;
        return -1;
    }
    return PQgetisnull(res->result, row, colno) ? 1 : 0;
}

size_t pgEscape(char* dest, const char* text)
{
    size_t length = strlen(text);
    // With a connection at hand its settings decide how to escape; libpq's
    // connection-less form follows the last connection it made.
    if (pgResourcePtr && pgResourcePtr->connection && pgResourcePtr->ownerPid == getpid()) {
        int error = 0;
        size_t n = PQescapeStringConn(pgResourcePtr->connection, dest, text, length, &error);
        if (!error)
            return n;
    }
    return PQescapeString(dest, text, length);
}

int pgAEscape(char** out, const char* text)
{
    if (out == nullptr || text == nullptr)
        return -1;
    size_t length = strlen(text);
    char* buf = static_cast<char*>(malloc(3 * length + 1));
    if (buf == nullptr)
        return -1;
    size_t used = pgEscape(buf, text);
    char* shrunk = static_cast<char*>(realloc(buf, used + 1));
    *out = shrunk ? shrunk : buf;
    return 0;
}

size_t pgCopyEscape(char* dest, const char* text, char delimiter)
{
    size_t n = 0;
    for (const char* p = text; *p; ++p) {
        if (*p == '\r' || *p == '\n' || *p == '\\' || *p == delimiter)
            dest[n++] = '\\';
        dest[n++] = *p;
    }
    dest[n] = '\0';
    return n;
}

int pgCopyIn(const char* table, const char* delimiter, const char* text)
{
    pgSignalGuard masked;
    log_printf(4, "%s:%d: Copy text: %s\n", __FILE__, __LINE__, text);
    ResultHolder start(pgVExec("COPY %s FROM STDIN WITH DELIMITER AS '%s';", table, delimiter));
    if (pgStatus(start.get()) != 0)
        return -1;
    PGconn* conn = pgResourcePtr->connection;
    static const char kEndOfData[] = "\\.\n";
    bool sent = PQputCopyData(conn, text, static_cast<int>(strlen(text))) == 1 &&
                PQputCopyData(conn, kEndOfData, static_cast<int>(strlen(kEndOfData))) == 1;
    if (!sent)
        log_printf(0, "%s:%d: PQputCopyData failed\n", __FILE__, __LINE__);
    bool ok = PQputCopyEnd(conn, sent ? nullptr : "PQputCopyData failed") == 1 && sent;
    while (PGresult* result = PQgetResult(conn)) {
        if (PQresultStatus(result) != PGRES_COMMAND_OK) {
            log_printf(0, "%s:%d: Execution of copy (%s) statement failed: %s.", __FILE__, __LINE__, table,
                       trimmed(PQresultErrorMessage(result)).c_str());
            ok = false;
        }
        PQclear(result);
    }
    if (!ok)
        return -1;
    log_printf(4, "%s:%d: COPY command succeeded\n", __FILE__, __LINE__);
    return 0;
}

int pgBegin()
{
    pgSignalGuard masked;
    if (execSimple("BEGIN;") != 0) {
        log_printf(0, "%s:%d: Failed to start transaction\n", __FILE__, __LINE__);
        return -1;
    }
    if (pgResourcePtr->savepointCount < 1)
        pgResourcePtr->savepointCount = 1;
    log_printf(3, "%s:%d: Successfully started a transaction\n", __FILE__, __LINE__);
    return 0;
}

int pgCommit()
{
    pgSignalGuard masked;
    int rc = execCommit();
    if (rc != 0) {
        execSimple("ROLLBACK;");
        log_printf(0, "%s:%d: Failed to commit transaction; rollback performed\n", __FILE__, __LINE__);
    }
    if (pgResourcePtr) {
        if (rc != 0)
            log_printf(3, "%s:%d: Resetting savepoint count to 0\n", __FILE__, __LINE__);
        pgResourcePtr->savepointCount = 0;
    }
    if (rc == 0)
        log_printf(3, "%s:%d: Successfully committed transaction\n", __FILE__, __LINE__);
    return rc;
}

int pgRollback()
{
    pgSignalGuard masked;
    int rc = execSimple("ROLLBACK;");
    if (pgResourcePtr)
        pgResourcePtr->savepointCount = 0;
    if (rc == 0)
        log_printf(3, "%s:%d: Transaction rolled back successfully\n", __FILE__, __LINE__);
    else
        log_printf(0, "%s:%d: Failed to roll back transaction\n", __FILE__, __LINE__);
    return rc;
}

int pgPushTransaction(int* id)
{
    pgSignalGuard masked;
    int newId;
    int rc;
    if (!pgInTransaction()) {
        rc = pgBegin();
        newId = 1;
    } else {
        newId = pgResourcePtr->savepointCount + 1;
        char statement[64];
        snprintf(statement, sizeof(statement), "SAVEPOINT pghelper_savepoint_%d;", newId);
        rc = execSimple(statement);
    }
    if (rc != 0) {
        log_printf(0, "%s:%d: Failed to start transaction or set savepoint\n", __FILE__, __LINE__);
        return -1;
    }
    pgResourcePtr->savepointCount = newId;
    if (id)
        *id = newId;
    log_printf(3, "%s:%d: pgPushTransaction was successful; savepoint id %d\n", __FILE__, __LINE__, newId);
    return 0;
}

int pgPopTransaction(int commit, int id)
{
    pgSignalGuard masked;
    int count = pgResourcePtr ? pgResourcePtr->savepointCount : 0;
    if (id == 0 && count == 0) {
        log_printf(3, "%s:%d: pgPopTransaction: nothing to do, returning SUCCESS\n", __FILE__, __LINE__);
        return 0;
    }
    if (!connectionUsable()) {
        // The transaction is gone with the connection; the books follow as
        // if the pop had worked, so the caller's unwinding stays in step.
        if (pgResourcePtr && id >= 0 && id <= count) {
            pgResourcePtr->savepointCount = id == 0 ? 0 : id - 1;
            log_printf(0, "%s:%d: Adjusted savepoint count to %d\n", __FILE__, __LINE__,
                       pgResourcePtr->savepointCount);
        }
        return -1;
    }
    if (id == 0)
        id = count;
    if (id == 1) {
        int rc = commit ? pgCommit() : pgRollback();
        if (rc != 0) {
            log_printf(0, "%s:%d: Failed to %s transaction or %s savepoint\n", __FILE__, __LINE__,
                       commit ? "commit" : "roll back", commit ? "release" : "roll back to and release");
            return -1;
        }
        log_printf(3, "%s:%d: pgPopTransaction was successful; %s transaction\n", __FILE__, __LINE__,
                   commit ? "committed" : "rolled back");
        return 0;
    }
    if (id > 1 && id <= count)
        return popSavepoint(commit, id);
    log_printf(0, "%s:%d: Invalid savepoint identifier \"%d\"\n", __FILE__, __LINE__, id);
    return -1;
}

int pgInTransaction()
{
    return pgResourcePtr && pgResourcePtr->savepointCount != 0;
}

int pgCECset(const char* table, const char* column, int value)
{
    if (!cecArgumentsOk(table, column))
        return -1;
    pgResource* res = pgResourcePtr;
    if (res->cecTable == nullptr) {
        res->cecTable = cecInit();
        if (res->cecTable == nullptr) {
            log_printf(0, "%s:%d: pgCECinit failed\n", __FILE__, __LINE__);
            log_printf(0, "%s:%d: pgCECinit returned NULL\n", __FILE__, __LINE__);
            return -1;
        }
    }
    if (pgCECentry* known = cecFind(table, column)) {
        known->value = value;
    } else {
        if (res->cecCount >= PG_CEC_SIZE) {
            log_printf(0, "%s:%d: CEC table overflow\n", __FILE__, __LINE__);
            return -1;
        }
        pgCECentry& entry = res->cecTable[res->cecCount];
        entry.table = strdup(table);
        entry.column = strdup(column);
        if (!entry.table || !entry.column) {
            free(entry.table);
            free(entry.column);
            entry.table = entry.column = nullptr;
            log_printf(0, "%s:%d: CEC set failed for %s.%s %d\n", __FILE__, __LINE__, table, column, value);
            return -1;
        }
        entry.value = value;
        res->cecCount++;
    }
    log_printf(5, "%s:%d: storing %s.%s exists = %d\n", __FILE__, __LINE__, table, column, value);
    return 0;
}

int pgCECget(const char* table, const char* column)
{
    if (pgResourcePtr == nullptr || table == nullptr || column == nullptr)
        return -1;
    const pgCECentry* known = cecFind(table, column);
    return known ? known->value : -1;
}
