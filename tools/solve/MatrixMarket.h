// Readers for the input files of the command-line solver: a symmetric matrix in Matrix Market coordinate
// form, a file that splits its unknowns into body rows and constraint rows, and a right-hand side.
//
// Every reader checks its input completely and fails with a message "FILE:LINE: what is wrong (the
// offending values)", or "FILE:LINE:COLUMN: ..." when one word of the line is at fault (the column counts
// bytes from 1), never with a crash; on failure its output holds whatever was read so far (valid objects, not
// to be used). Integers are read exactly: a word outside the range of what it counts or indexes (checked
// before any arithmetic, so nothing wraps around) is refused with its range. Words and file names in
// messages go through quoted() and fileName(): a message never holds a control byte and stays short.
// Files are read through zlib, so each of them may also be gzip-compressed (a plain file reads as it is).
#ifndef KIVTAMBER_TOOLS_MATRIXMARKET_H
#define KIVTAMBER_TOOLS_MATRIXMARKET_H

#include <cstddef>
#include <string>
#include <vector>

namespace kivTamber {
namespace io {

// A symmetric n × n matrix by its lower triangle, compressed by column, 0-based: column c holds the rows
// rowIndices[colPointers[c] .. colPointers[c+1]-1], strictly ascending, every one >= c. Explicit zeros of
// the file are kept (they are part of the pattern).
struct SymmetricMatrix {
    unsigned int n = 0;
    std::vector<unsigned long> colPointers;  // [n + 1]
    std::vector<unsigned int> rowIndices;    // [entries]
    std::vector<double> values;              // [entries]
    // The file's storage: "symmetric" (one triangle) or "general" (both, checked to be equal).
    bool general = false;
    // Entry lines in the file (the count of its size line).
    unsigned long fileEntries = 0;

    unsigned long numEntries() const { return rowIndices.size(); }
    // Entries of the full matrix: every off-diagonal entry counted twice.
    unsigned long fullEntries() const;
    // y = A·x (x, y: n values each, distinct).
    void multiply(const double* x, double* y) const;
    // ‖A‖∞, the largest absolute row sum of the full matrix.
    double normInf() const;
};

// Reads a whole file into `text`, gunzipping it when it is gzip-compressed (a plain file reads as it is).
// Fails with "FILE: cannot open (why)" or "FILE: read error (why)" (a truncated or corrupt stream included).
bool readText(const std::string& path, std::string& text, std::string& message);

// Reads a Matrix Market file: the banner "%%MatrixMarket matrix coordinate FIELD SYMMETRY" (words in any
// case) with FIELD real or integer and SYMMETRY symmetric or general, '%' comment lines, the size line
// "rows columns entries" of a square matrix, then exactly `entries` lines "row column value", 1-based.
// Blank lines are skipped anywhere. A symmetric file may give an entry in either triangle (it stands for
// both); a general file must give equal values at (i, j) and (j, i) (a missing partner counts as 0).
// Rejected, with the line: a missing or garbled banner; another object, format ("array"), field
// ("pattern", "complex") or symmetry ("skew-symmetric", "hermitian"); a bad size line, a non-square or empty
// matrix, a row or column count above 4294967294, more entries than the triangle holds or fewer than the n/2
// that a non-singular matrix needs (so that a huge n with few entries allocates nothing of size n); too few
// or too many entry lines; an index that is not an integer or outside 1..n; a value that is not a number or
// not finite (an integer field also wants integers); extra text on a line; an entry given twice; an
// asymmetric general matrix.
// Returns true and fills `matrix`, or false with `message`.
bool readMatrixMarket(const std::string& path, SymmetricMatrix& matrix, std::string& message);

// The same on the text of a file; `name` stands for the file name in messages.
bool parseMatrixMarket(const std::string& name, const std::string& text, SymmetricMatrix& matrix,
                       std::string& message);

// The split of the unknowns 1..n of a matrix: rows 1..n1 are bodies, n1+1..n constraints.
struct RowSplit {
    unsigned int bodyRows = 0;        // n1
    unsigned int constraintRows = 0;  // n2
};

// Reads a blocks file: lines "n1 <count>" and "n2 <count>" (each exactly once, in either order), '#'
// comment lines and blank lines, for a matrix of n rows: n1 + n2 must equal n. Rejected, with the line: an
// unknown key, a count that is not a non-negative integer or above n (so that n1 + n2 cannot overflow),
// extra text, a repeated key; a missing key or n1 + n2 ≠ n (at the last line of the file). On failure
// `split` is left as it was.
bool readRowSplit(const std::string& path, unsigned int n, RowSplit& split, std::string& message);
bool parseRowSplit(const std::string& name, const std::string& text, unsigned int n, RowSplit& split,
                   std::string& message);

// Reads a right-hand side of n values: either one value per line ('%' or '#' comment lines and blank lines
// skipped), or a Matrix Market "array real general" (or integer) file of n rows and 1 column. Rejected,
// with the line: non-numeric or non-finite values, more than one value on a line, too few or too many
// values, a bad banner or size line.
bool readVector(const std::string& path, unsigned int n, std::vector<double>& values, std::string& message);
bool parseVector(const std::string& name, const std::string& text, unsigned int n,
                 std::vector<double>& values, std::string& message);

// Text from a file or a command line made safe for a message: bytes outside printable ASCII written as
// \xNN (a NUL cannot cut the message, control bytes never reach the terminal) and, when longer than `limit`
// bytes, cut to limit − 3 of them followed by "...". Every word a message of the tool shows goes through it.
std::string printable(const char* begin, const char* end, std::size_t limit);
std::string printable(const std::string& text, std::size_t limit);
// A word for a message: blanks at both ends dropped, printable(…, 60), in double quotes.
std::string quoted(const char* begin, const char* end);
std::string quoted(const std::string& text);
// How a file name appears in messages: printable(path, 1024).
inline std::string fileName(const std::string& path) {
    return printable(path, 1024);
}

// Writes one value per line with "%.17g" (a double reads back exactly). Returns false with `message` when
// the file cannot be written.
bool writeVector(const std::string& path, const double* values, unsigned long n, std::string& message);

}  // namespace io
}  // namespace kivTamber

#endif  // KIVTAMBER_TOOLS_MATRIXMARKET_H
