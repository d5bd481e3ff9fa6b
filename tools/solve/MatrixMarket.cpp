// Matrix Market, blocks-file and vector readers of the command-line solver.
#include "MatrixMarket.h"

#include <sys/stat.h>
#include <zlib.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace kivTamber {
namespace io {
std::string quoted(const char* b, const char* e) {
    while (b < e && (*b == ' ' || *b == '\t' || *b == '\r' || *b == '\v' || *b == '\f')) ++b;
    while (e > b && (e[-1] == ' ' || e[-1] == '\t' || e[-1] == '\r' || e[-1] == '\v' || e[-1] == '\f')) --e;
    return "\"" + printable(b, e, 60) + "\"";
}
std::string quoted(const std::string& s) {
    return quoted(s.data(), s.data() + s.size());
}

std::string printable(const char* b, const char* e, std::size_t limit) {
    const bool cut = static_cast<std::size_t>(e - b) > limit;
    if (cut) e = b + (limit > 3 ? limit - 3 : 0);
    std::string s;
    for (; b < e; ++b) {
        const unsigned char c = static_cast<unsigned char>(*b);
        if (c >= 0x20 && c < 0x7f) {
            s += *b;
        } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            s += hex;
        }
    }
    return cut ? s + "..." : s;
}
std::string printable(const std::string& s, std::size_t limit) {
    return printable(s.data(), s.data() + s.size(), limit);
}

namespace {

enum class IntegerWord { ok, notInteger, outOfRange };

// ---------------------------------------------------------------------------------------------------------
// Text, lines and words
// ---------------------------------------------------------------------------------------------------------

// Reads a whole file, gzip-compressed or plain (zlib reads a plain file as it is).
bool readFile(const std::string& path, std::string& text, std::string& message) {
    gzFile file = gzopen(path.c_str(), "rb");
    if (file == nullptr) {
        message = fileName(path) + ": cannot open (" + std::strerror(errno != 0 ? errno : ENOENT) + ")";
        return false;
    }
    // Large reads for large files; zlib's default buffers (8 KiB) for small ones, which are read at once.
    struct stat info;
    if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_size > (1 << 16))
        gzbuffer(file, 1u << 18);
    text.clear();
    char buffer[1 << 16];
    for (;;) {
        const int got = gzread(file, buffer, sizeof buffer);
        if (got > 0) text.append(buffer, static_cast<std::size_t>(got));
        if (got < static_cast<int>(sizeof buffer)) {
            int code = Z_OK;
            const char* what = gzerror(file, &code);
            if (got < 0 || code != Z_OK) {
                // zlib puts the path in front of some of its messages: drop it, it is already there.
                std::string why = what != nullptr ? what : "unknown";
                if (why.compare(0, path.size() + 2, path + ": ") == 0) why.erase(0, path.size() + 2);
                message = fileName(path) + ": read error (" + printable(why, 200) + ")";
                gzclose(file);
                return false;
            }
            break;
        }
    }
    // A truncated gzip stream shows up at the close.
    if (gzclose(file) != Z_OK) {
        message = fileName(path) + ": read error (truncated or corrupt compressed data)";
        return false;
    }
    return true;
}

// Line-by-line walk over a text, counting lines from 1. A line excludes its '\n' and a trailing '\r'.
class Lines {
public:
    explicit Lines(const std::string& text) : p_(text.data()), end_(text.data() + text.size()) {}

    // The next line into [begin, end); false at the end of the text.
    bool next(const char*& begin, const char*& end) {
        if (p_ == end_) return false;
        begin = p_;
        const char* nl = static_cast<const char*>(std::memchr(p_, '\n', static_cast<std::size_t>(end_ - p_)));
        end = nl != nullptr ? nl : end_;
        p_ = nl != nullptr ? nl + 1 : end_;
        if (end > begin && end[-1] == '\r') --end;
        ++line_;
        return true;
    }

    // The number of the line last returned (0 before the first).
    unsigned long line() const { return line_; }

private:
    const char* p_;
    const char* end_;
    unsigned long line_ = 0;
};

inline bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f';
}

// The whitespace-separated words of a line: the first `kept` of them, and how many there are.
struct Words {
    static constexpr unsigned int kept = 5;
    const char* begin[kept];
    const char* end[kept];
    unsigned int count = 0;

    Words(const char* b, const char* e) {
        while (b < e) {
            while (b < e && isSpace(*b)) ++b;
            if (b == e) break;
            const char* w = b;
            while (b < e && !isSpace(*b)) ++b;
            if (count < kept) {
                begin[count] = w;
                end[count] = b;
            }
            ++count;
        }
    }
    std::string word(unsigned int k) const { return std::string(begin[k], end[k]); }
    // Everything from word k to the end of the line, trailing blanks removed.
    std::string rest(unsigned int k, const char* lineEnd) const {
        const char* e = lineEnd;
        while (e > begin[k] && isSpace(e[-1])) --e;
        return std::string(begin[k], e);
    }
};

std::string at(const std::string& name, unsigned long line) {
    return fileName(name) + ":" + std::to_string(line) + ": ";
}

// "NAME:LINE:COLUMN: " for the word starting at `word` of the line starting at `lineBegin` (columns count
// bytes from 1).
std::string at(const std::string& name, unsigned long line, const char* lineBegin, const char* word) {
    return fileName(name) + ":" + std::to_string(line) + ":" + std::to_string(word - lineBegin + 1) + ": ";
}

// What is wrong with integer word `k` of a line, for a message: "WHAT "WORD" is not an integer" or
// "WHAT "WORD" out of range MIN..MAX".
std::string badInteger(const char* what, IntegerWord status, const char* b, const char* e, long long minimum,
                       long long maximum) {
    return std::string(what) + " " + quoted(b, e) +
           (status == IntegerWord::notInteger
                ? std::string(" is not an integer")
                : " out of range " + std::to_string(minimum) + ".." + std::to_string(maximum));
}

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

// An integer word: optional sign, then digits only, exactly in [minimum, maximum]. The digits accumulate as
// an unsigned 64-bit magnitude with the overflow checked before each step, so no word wraps around: a word
// of any length that lies outside the range is `outOfRange`, never some value inside it.
IntegerWord parseInteger(const char* b, const char* e, long long minimum, long long maximum,
                         long long& value) {
    bool negative = false;
    if (b < e && (*b == '+' || *b == '-')) negative = *b++ == '-';
    if (b == e) return IntegerWord::notInteger;
    unsigned long long v = 0;
    bool overflow = false;
    for (; b < e; ++b) {
        if (*b < '0' || *b > '9') return IntegerWord::notInteger;
        const unsigned long long d = static_cast<unsigned long long>(*b - '0');
        if (v > (~0ull - d) / 10)
            overflow = true;  // keep scanning: a later non-digit still makes it "not an integer"
        else
            v = v * 10 + d;
    }
    // Every range checked here lies inside ±(2^63 − 1), so a larger magnitude is out of range either way.
    if (overflow || v > static_cast<unsigned long long>(std::numeric_limits<long long>::max()))
        return IntegerWord::outOfRange;
    const long long x = negative ? -static_cast<long long>(v) : static_cast<long long>(v);
    if (x < minimum || x > maximum) return IntegerWord::outOfRange;
    value = x;
    return IntegerWord::ok;
}

// Sign and digits only (an integer field's value: any length, the value is read as a number).
bool isIntegerWord(const char* b, const char* e) {
    if (b < e && (*b == '+' || *b == '-')) ++b;
    if (b == e) return false;
    for (; b < e; ++b)
        if (*b < '0' || *b > '9') return false;
    return true;
}

// A number word (strtod syntax, the whole word). The word is followed by a blank, a line end or the end of
// the text's NUL-terminated storage, so strtod cannot read past it.
bool parseNumber(const char* b, const char* e, double& value) {
    char* stop = nullptr;
    value = std::strtod(b, &stop);
    return stop == e && e > b;
}

// Checks a value word of a matrix or vector; returns an empty string or what is wrong.
std::string checkValue(const char* b, const char* e, bool integerField, double& value) {
    if (integerField && !isIntegerWord(b, e)) {
        double d = 0.0;
        if (parseNumber(b, e, d))
            return "value " + quoted(b, e) + " is not an integer (the field is integer)";
        return "value " + quoted(b, e) + " is not a number";
    }
    if (!parseNumber(b, e, value)) return "value " + quoted(b, e) + " is not a number";
    if (!std::isfinite(value)) return "value " + quoted(b, e) + " is not finite";
    return std::string();
}

std::string format(double v) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.17g", v);
    return buffer;
}

// ---------------------------------------------------------------------------------------------------------
// Matrix Market banner
// ---------------------------------------------------------------------------------------------------------

struct Banner {
    std::string format;    // "coordinate" or "array"
    bool integer = false;  // field integer (else real)
    bool general = false;  // symmetry general (else symmetric)
};

// Reads the banner line (the first line of `lines`). `wantArray`: a vector file (format array, symmetry
// general) instead of a matrix (coordinate, symmetric or general).
bool readBanner(const std::string& name, Lines& lines, bool wantArray, Banner& banner, std::string& message) {
    const char* const example = wantArray ? "%%MatrixMarket matrix array real general"
                                          : "%%MatrixMarket matrix coordinate real symmetric";
    const char* b = nullptr;
    const char* e = nullptr;
    if (!lines.next(b, e)) {
        message = at(name, 1) + "empty file (expected the banner \"" + example + "\")";
        return false;
    }
    const Words w(b, e);
    if (w.count == 0 || lower(w.word(0)) != "%%matrixmarket") {
        message = at(name, 1) + "missing Matrix Market banner (expected \"" + example + "\", found " +
                  quoted(b, e) + ")";
        return false;
    }
    if (w.count != 5) {
        message = at(name, 1) + "garbled banner " + quoted(b, e) +
                  " (expected \"%%MatrixMarket matrix FORMAT FIELD SYMMETRY\")";
        return false;
    }
    const std::string object = lower(w.word(1));
    banner.format = lower(w.word(2));
    const std::string field = lower(w.word(3));
    const std::string symmetry = lower(w.word(4));
    const std::string line = at(name, 1);
    if (object != "matrix") {
        message = line + "unsupported object " + quoted(w.word(1)) + " (only \"matrix\")";
        return false;
    }
    if (banner.format != (wantArray ? "array" : "coordinate")) {
        message = line + "unsupported format " + quoted(w.word(2)) +
                  (wantArray ? " for a vector (only \"array\")" : " (only \"coordinate\")");
        return false;
    }
    if (field != "real" && field != "integer") {
        message = line + "unsupported field " + quoted(w.word(3)) + " (only \"real\" or \"integer\")";
        return false;
    }
    banner.integer = field == "integer";
    if (wantArray ? symmetry != "general" : symmetry != "symmetric" && symmetry != "general") {
        message = line + "unsupported symmetry " + quoted(w.word(4)) +
                  (wantArray ? " for a vector (only \"general\")" : " (only \"symmetric\" or \"general\")");
        return false;
    }
    banner.general = symmetry == "general";
    return true;
}

// The next line that is neither blank nor a comment (starting with `comment`); false at the end.
bool nextContentLine(Lines& lines, const char*& b, const char*& e, char comment) {
    while (lines.next(b, e)) {
        const char* p = b;
        while (p < e && isSpace(*p)) ++p;
        if (p == e || *p == comment) continue;
        return true;
    }
    return false;
}

// One entry of a coordinate file, 0-based and turned into the lower triangle (row >= col).
struct Entry {
    unsigned int row;
    unsigned int col;
    unsigned long line;
    double value;
    bool mirrored;  // given as (col, row), in the upper triangle
};

// Keeps the message of the offence with the smallest line number.
struct FirstOffence {
    unsigned long line = ~0ul;
    std::string message;
    void offer(unsigned long at, const std::string& what) {
        if (at < line) {
            line = at;
            message = what;
        }
    }
};

std::string position(unsigned int i, unsigned int j) {
    return "(" + std::to_string(i + 1ul) + ", " + std::to_string(j + 1ul) + ")";
}

// The given position of an entry (row, col as in the file), 1-based.
std::string givenPosition(const Entry& x) {
    return x.mirrored ? position(x.col, x.row) : position(x.row, x.col);
}

}  // namespace

// ---------------------------------------------------------------------------------------------------------
// SymmetricMatrix
// ---------------------------------------------------------------------------------------------------------

unsigned long SymmetricMatrix::fullEntries() const {
    unsigned long diagonal = 0;
    for (unsigned int c = 0; c < n; ++c)
        if (colPointers[c] < colPointers[c + 1] && rowIndices[colPointers[c]] == c) ++diagonal;
    return 2 * numEntries() - diagonal;
}

void SymmetricMatrix::multiply(const double* x, double* y) const {
    std::fill(y, y + n, 0.0);
    for (unsigned int c = 0; c < n; ++c) {
        for (unsigned long k = colPointers[c]; k < colPointers[c + 1]; ++k) {
            const unsigned int r = rowIndices[k];
            y[r] += values[k] * x[c];  // a_rc·x_c
            if (r != c) y[c] += values[k] * x[r];
        }
    }
}

double SymmetricMatrix::normInf() const {
    std::vector<double> sums(n, 0.0);
    for (unsigned int c = 0; c < n; ++c) {
        for (unsigned long k = colPointers[c]; k < colPointers[c + 1]; ++k) {
            const unsigned int r = rowIndices[k];
            sums[r] += std::fabs(values[k]);
            if (r != c) sums[c] += std::fabs(values[k]);
        }
    }
    double norm = 0.0;
    for (double s : sums) norm = std::max(norm, s);
    return norm;
}

// ---------------------------------------------------------------------------------------------------------
// Matrix Market
// ---------------------------------------------------------------------------------------------------------

bool readText(const std::string& path, std::string& text, std::string& message) {
    return readFile(path, text, message);
}

bool parseMatrixMarket(const std::string& name, const std::string& text, SymmetricMatrix& matrix,
                       std::string& message) {
    Lines lines(text);
    Banner banner;
    if (!readBanner(name, lines, false, banner, message)) return false;

    // Size line.
    const char* b = nullptr;
    const char* e = nullptr;
    if (!nextContentLine(lines, b, e, '%')) {
        message = at(name, std::max(lines.line(), 1ul)) + "the file ends before the size line";
        return false;
    }
    const unsigned long sizeLine = lines.line();
    const Words size(b, e);
    long long counts[3] = {0, 0, 0};  // rows, columns, entries
    const long long maxima[3] = {0xFFFFFFFEll, 0xFFFFFFFEll, std::numeric_limits<long long>::max()};
    const char* const names[3] = {"row count", "column count", "entry count"};
    for (unsigned int k = 0; k < 3 && size.count == 3; ++k) {
        const IntegerWord status = parseInteger(size.begin[k], size.end[k], 0, maxima[k], counts[k]);
        if (status == IntegerWord::outOfRange) {
            message = at(name, sizeLine, b, size.begin[k]) +
                      badInteger(names[k], status, size.begin[k], size.end[k], 0, maxima[k]);
            return false;
        }
        if (status != IntegerWord::ok) break;
    }
    long long rows = counts[0], cols = counts[1], declared = counts[2];
    if (size.count != 3 || parseInteger(size.begin[0], size.end[0], 0, maxima[0], rows) != IntegerWord::ok ||
        parseInteger(size.begin[1], size.end[1], 0, maxima[1], cols) != IntegerWord::ok ||
        parseInteger(size.begin[2], size.end[2], 0, maxima[2], declared) != IntegerWord::ok) {
        message = at(name, sizeLine) + "bad size line " + quoted(b, e) +
                  " (expected \"rows columns entries\", three non-negative integers)";
        return false;
    }
    if (rows != cols) {
        message = at(name, sizeLine) + "the matrix is not square (" + std::to_string(rows) + " rows, " +
                  std::to_string(cols) + " columns)";
        return false;
    }
    if (rows == 0) {
        message = at(name, sizeLine) + "empty matrix (0 rows)";
        return false;
    }
    const unsigned int n = static_cast<unsigned int>(rows);
    const double capacity = banner.general ? double(n) * n : double(n) * (n + 1.0) / 2.0;
    if (static_cast<double>(declared) > capacity) {
        message = at(name, sizeLine) + std::to_string(declared) + " entries declared, more than the " +
                  format(capacity) + " of a " + std::to_string(n) + " x " + std::to_string(n) +
                  (banner.general ? " matrix" : " lower triangle");
        return false;
    }

    // Every row of a non-singular matrix holds an entry, and an entry serves at most two rows. Checked here
    // so that a size line with a huge n and few entries is refused before anything of size n is allocated.
    if (static_cast<double>(declared) < n / 2.0) {
        message = at(name, sizeLine) + std::to_string(declared) + " entries declared for " +
                  std::to_string(n) + " rows: a non-singular matrix needs at least " +
                  std::to_string((n + 1ul) / 2) + " (every row needs an entry)";
        return false;
    }

    // Entries.
    std::vector<Entry> entries;
    entries.reserve(static_cast<std::size_t>(std::min<long long>(declared, 1ll << 24)));
    while (nextContentLine(lines, b, e, '%')) {
        const std::string here = at(name, lines.line());
        if (static_cast<long long>(entries.size()) == declared) {
            message = here + "more entries than the " + std::to_string(declared) + " declared on line " +
                      std::to_string(sizeLine);
            return false;
        }
        const Words w(b, e);
        if (w.count < 3) {
            message = here + "expected \"row column value\", found " + quoted(b, e);
            return false;
        }
        if (w.count > 3) {
            message = here + "extra text " + quoted(w.rest(3, e)) + " after the value";
            return false;
        }
        long long index[2] = {0, 0};
        for (int k = 0; k < 2; ++k) {
            const IntegerWord status = parseInteger(w.begin[k], w.end[k], 1, n, index[k]);
            if (status != IntegerWord::ok) {
                message =
                    at(name, lines.line(), b, w.begin[k]) +
                    badInteger(k == 0 ? "row index" : "column index", status, w.begin[k], w.end[k], 1, n);
                return false;
            }
        }
        double value = 0.0;
        const std::string bad = checkValue(w.begin[2], w.end[2], banner.integer, value);
        if (!bad.empty()) {
            message = at(name, lines.line(), b, w.begin[2]) + bad;
            return false;
        }
        Entry x;
        x.row = static_cast<unsigned int>(index[0] - 1);
        x.col = static_cast<unsigned int>(index[1] - 1);
        x.line = lines.line();
        x.value = value;
        x.mirrored = x.row < x.col;
        if (x.mirrored) std::swap(x.row, x.col);
        entries.push_back(x);
    }
    if (static_cast<long long>(entries.size()) < declared) {
        message = at(name, std::max(lines.line(), 1ul)) + "the file ends after " +
                  std::to_string(entries.size()) + " of the " + std::to_string(declared) +
                  " entries declared on line " + std::to_string(sizeLine);
        return false;
    }

    // Duplicates and, for a general file, symmetry: the offence with the smallest line is reported. A
    // symmetric file may give an entry in either triangle, but only once.
    std::sort(entries.begin(), entries.end(), [&](const Entry& p, const Entry& q) {
        if (p.col != q.col) return p.col < q.col;
        if (p.row != q.row) return p.row < q.row;
        if (banner.general && p.mirrored != q.mirrored) return q.mirrored;
        return p.line < q.line;
    });
    FirstOffence offence;
    matrix.n = n;
    matrix.general = banner.general;
    matrix.fileEntries = static_cast<unsigned long>(declared);
    matrix.colPointers.assign(n + 1ul, 0);
    matrix.rowIndices.clear();
    matrix.values.clear();
    matrix.rowIndices.reserve(entries.size());
    matrix.values.reserve(entries.size());
    for (std::size_t k = 0; k < entries.size();) {
        std::size_t end = k + 1;
        while (end < entries.size() && entries[end].row == entries[k].row &&
               entries[end].col == entries[k].col)
            ++end;
        // Group [k, end) of one position; in a general file its lower entries come before its upper ones.
        const Entry* lowerEntry = nullptr;
        const Entry* upperEntry = nullptr;
        for (std::size_t t = k; t < end; ++t) {
            const Entry& x = entries[t];
            const Entry*& slot = (banner.general && x.mirrored) ? upperEntry : lowerEntry;
            if (slot == nullptr) {
                slot = &x;
            } else if (slot->mirrored == x.mirrored) {
                offence.offer(x.line, at(name, x.line) + "duplicate entry " + givenPosition(x) +
                                          ", already given on line " + std::to_string(slot->line));
            } else {
                offence.offer(x.line, at(name, x.line) + "duplicate entry " + givenPosition(x) +
                                          ", already given as " + givenPosition(*slot) + " on line " +
                                          std::to_string(slot->line));
            }
        }
        const Entry& kept = lowerEntry != nullptr ? *lowerEntry : *upperEntry;
        if (banner.general && kept.row != kept.col) {
            const Entry* given = lowerEntry != nullptr ? lowerEntry : upperEntry;
            const Entry* partner = lowerEntry != nullptr ? upperEntry : nullptr;
            if (partner == nullptr && given->value != 0.0) {
                offence.offer(given->line, at(name, given->line) + "the general matrix is not symmetric: A" +
                                               givenPosition(*given) + " = " + format(given->value) +
                                               " on line " + std::to_string(given->line) + ", A" +
                                               position(given->mirrored ? given->row : given->col,
                                                        given->mirrored ? given->col : given->row) +
                                               " is not given (0)");
            } else if (partner != nullptr && partner->value != given->value) {
                const Entry& first = given->line < partner->line ? *given : *partner;
                const Entry& second = given->line < partner->line ? *partner : *given;
                offence.offer(second.line, at(name, second.line) + "the general matrix is not symmetric: A" +
                                               givenPosition(first) + " = " + format(first.value) +
                                               " on line " + std::to_string(first.line) + ", A" +
                                               givenPosition(second) + " = " + format(second.value) +
                                               " on line " + std::to_string(second.line));
            }
        }
        matrix.rowIndices.push_back(kept.row);
        matrix.values.push_back(kept.value);
        ++matrix.colPointers[kept.col + 1ul];
        k = end;
    }
    if (!offence.message.empty()) {
        message = offence.message;
        return false;
    }
    for (unsigned int c = 0; c < n; ++c) matrix.colPointers[c + 1ul] += matrix.colPointers[c];
    return true;
}

bool readMatrixMarket(const std::string& path, SymmetricMatrix& matrix, std::string& message) {
    std::string text;
    return readFile(path, text, message) && parseMatrixMarket(path, text, matrix, message);
}

// ---------------------------------------------------------------------------------------------------------
// Blocks file
// ---------------------------------------------------------------------------------------------------------

bool parseRowSplit(const std::string& name, const std::string& text, unsigned int n, RowSplit& split,
                   std::string& message) {
    Lines lines(text);
    const char* b = nullptr;
    const char* e = nullptr;
    long long count[2] = {0, 0};
    unsigned long given[2] = {0, 0};  // line of n1, n2 (0: not yet)
    while (nextContentLine(lines, b, e, '#')) {
        const std::string here = at(name, lines.line());
        const Words w(b, e);
        const std::string key = w.word(0);
        const int k = key == "n1" ? 0 : key == "n2" ? 1 : -1;
        if (k < 0) {
            message = here + "unknown key " + quoted(key) + " (expected \"n1 <count>\" or \"n2 <count>\")";
            return false;
        }
        if (given[k] != 0) {
            message = here + key + " given twice (first on line " + std::to_string(given[k]) + ")";
            return false;
        }
        if (w.count < 2) {
            message = here + "count missing of " + key + " is not a non-negative integer";
            return false;
        }
        // Each count lies in 0..n, so their sum cannot overflow.
        const IntegerWord status = parseInteger(w.begin[1], w.end[1], 0, n, count[k]);
        if (status == IntegerWord::notInteger || (status == IntegerWord::outOfRange && *w.begin[1] == '-')) {
            message = at(name, lines.line(), b, w.begin[1]) + "count " + quoted(w.begin[1], w.end[1]) +
                      " of " + key + " is not a non-negative integer";
            return false;
        }
        if (status != IntegerWord::ok) {
            message = at(name, lines.line(), b, w.begin[1]) + "count " + quoted(w.begin[1], w.end[1]) +
                      " of " + key + " out of range 0.." + std::to_string(n) + " (the matrix has " +
                      std::to_string(n) + " rows)";
            return false;
        }
        if (w.count > 2) {
            message = here + "extra text " + quoted(w.rest(2, e)) + " after the count of " + key;
            return false;
        }
        given[k] = lines.line();
    }
    const unsigned long last = std::max(lines.line(), 1ul);
    for (int k = 0; k < 2; ++k) {
        if (given[k] == 0) {
            message = at(name, last) + "missing the line \"n" + std::to_string(k + 1) + " <count>\"";
            return false;
        }
    }
    if (count[0] + count[1] != static_cast<long long>(n)) {
        message = at(name, std::max(given[0], given[1])) + "n1 + n2 = " + std::to_string(count[0]) + " + " +
                  std::to_string(count[1]) + " = " + std::to_string(count[0] + count[1]) +
                  " does not match the " + std::to_string(n) + " rows of the matrix";
        return false;
    }
    split.bodyRows = static_cast<unsigned int>(count[0]);
    split.constraintRows = static_cast<unsigned int>(count[1]);
    return true;
}

bool readRowSplit(const std::string& path, unsigned int n, RowSplit& split, std::string& message) {
    std::string text;
    return readFile(path, text, message) && parseRowSplit(path, text, n, split, message);
}

// ---------------------------------------------------------------------------------------------------------
// Vectors
// ---------------------------------------------------------------------------------------------------------

bool parseVector(const std::string& name, const std::string& text, unsigned int n,
                 std::vector<double>& values, std::string& message) {
    Lines lines(text);
    const char* b = nullptr;
    const char* e = nullptr;
    Banner banner;
    const std::size_t start = text.find_first_not_of(" \t\r\n");
    if (start != std::string::npos && text.compare(start, 2, "%%") == 0) {
        // A Matrix Market array; its banner must be the first line.
        if (start != 0 && text.find('\n') < start) {
            message = at(name, 1) + "the Matrix Market banner must be the first line";
            return false;
        }
        if (!readBanner(name, lines, true, banner, message)) return false;
        if (!nextContentLine(lines, b, e, '%')) {
            message = at(name, std::max(lines.line(), 1ul)) + "the file ends before the size line";
            return false;
        }
        const Words size(b, e);
        long long dims[2] = {0, 0};  // rows, columns
        const long long maximum = std::numeric_limits<long long>::max();
        for (unsigned int k = 0; k < 2 && size.count == 2; ++k) {
            const IntegerWord status = parseInteger(size.begin[k], size.end[k], 0, maximum, dims[k]);
            if (status == IntegerWord::outOfRange && *size.begin[k] != '-') {
                message = at(name, lines.line(), b, size.begin[k]) +
                          badInteger(k == 0 ? "row count" : "column count", status, size.begin[k],
                                     size.end[k], 0, maximum);
                return false;
            }
            if (status != IntegerWord::ok) {
                dims[0] = -1;
                break;
            }
        }
        if (size.count != 2 || dims[0] < 0) {
            message = at(name, lines.line()) + "bad size line " + quoted(b, e) +
                      " (expected \"rows columns\", two non-negative integers)";
            return false;
        }
        const long long rows = dims[0], cols = dims[1];
        if (cols != 1 || rows != static_cast<long long>(n)) {
            message = at(name, lines.line()) + "the vector is " + std::to_string(rows) + " x " +
                      std::to_string(cols) + ", the matrix needs " + std::to_string(n) + " x 1";
            return false;
        }
    }
    // The values, one per line; '%' and '#' start comment lines.
    values.clear();
    values.reserve(n);
    while (lines.next(b, e)) {
        const char* p = b;
        while (p < e && isSpace(*p)) ++p;
        if (p == e || *p == '%' || *p == '#') continue;
        const std::string here = at(name, lines.line());
        if (values.size() == n) {
            message = here + "more values than the " + std::to_string(n) + " rows of the matrix";
            return false;
        }
        const Words w(b, e);
        if (w.count > 1) {
            message = here + "extra text " + quoted(w.rest(1, e)) + " after the value";
            return false;
        }
        double value = 0.0;
        const std::string bad = checkValue(w.begin[0], w.end[0], banner.integer, value);
        if (!bad.empty()) {
            message = at(name, lines.line(), b, w.begin[0]) + bad;
            return false;
        }
        values.push_back(value);
    }
    if (values.size() < n) {
        message = at(name, std::max(lines.line(), 1ul)) + "the file ends after " +
                  std::to_string(values.size()) + " of " + std::to_string(n) + " values";
        return false;
    }
    return true;
}

bool readVector(const std::string& path, unsigned int n, std::vector<double>& values, std::string& message) {
    std::string text;
    return readFile(path, text, message) && parseVector(path, text, n, values, message);
}

bool writeVector(const std::string& path, const double* values, unsigned long n, std::string& message) {
    std::FILE* file = std::fopen(path.c_str(), "w");
    if (file == nullptr) {
        message = fileName(path) + ": cannot write (" + std::strerror(errno) + ")";
        return false;
    }
    bool ok = true;
    for (unsigned long k = 0; k < n && ok; ++k) ok = std::fprintf(file, "%.17g\n", values[k]) > 0;
    ok = std::fclose(file) == 0 && ok;
    if (!ok) message = fileName(path) + ": write error (" + std::strerror(errno) + ")";
    return ok;
}

}  // namespace io
}  // namespace kivTamber
