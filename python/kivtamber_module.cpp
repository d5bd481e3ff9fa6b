// kivtamber._kivtamber: the solver object (Solver.h) for NumPy arrays.
//
// One Python type `Solver` holds a Solver<float> or a Solver<double>, chosen by its dtype at construction.
// Values are taken from NumPy arrays of exactly that dtype (a float64 array given to a float32 solver is a
// TypeError: precision is never changed behind the caller's back), in any memory order: C-contiguous arrays
// are read in place, others (Fortran order, strided views) through one copy in the same precision. The
// caller's arrays are only read; solves return new arrays.
//
// Errors: every Status that is not ok becomes a Python exception carrying the library's message
// (ValueError for invalid arguments, bad structures and non-finite values; RuntimeError for a call in the
// wrong state; FactorizationError, a RuntimeError, for zero and non-finite pivots and failed switches;
// MemoryError for out of memory). Shapes and ids are checked here before any pointer is handed on, since the
// library reads as many values as the block it is told about holds.
//
// Threads: the GIL is released during analysis, factorization and solves. A mutex per object serialises
// the calls into the library, so that two Python threads sharing one solver wait for each other instead of
// racing; it is taken only around library calls, never while Python code may run.
#include <kivTamber/Solver.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <exception>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace py = pybind11;

namespace kivTamber {
namespace {

// ---------------------------------------------------------------------------------------------------------
// Exceptions
// ---------------------------------------------------------------------------------------------------------

// kivtamber.FactorizationError; created at module initialisation, alive as long as the interpreter.
struct FactorizationErrorTag {};
PyObject* factorizationError = nullptr;

[[noreturn]] void raise(PyObject* type, const std::string& message) {
    PyErr_SetString(type, message.c_str());
    throw py::error_already_set();
}

// An error found while a solver object's mutex is held: a plain C++ exception, turned into the Python
// exception `type` only once the mutex is released (raising creates Python objects, and creating one may
// run Python code: a collection's finalizers).
struct Deferred {
    PyObject* type;
    std::string message;
};
[[noreturn]] void fail(PyObject* type, std::string message) {
    throw Deferred{type, std::move(message)};
}

py::object pivotDict(const PivotLocation& p) {
    if (!p.found) return py::none();
    py::dict d;
    d["kind"] = p.isConstraint ? "constraint" : "body";
    d["id"] = p.id;
    d["row"] = p.row;
    d["user_row"] = p.userRow;
    d["step"] = p.step;
    d["value"] = p.value;
    return std::move(d);
}

// Raises the exception that corresponds to a failed status; returns on success. `pivot` is attached to a
// FactorizationError as its `pivot` attribute (None when there is none).
void check(const Status& status, const PivotLocation* pivot = nullptr) {
    if (status.ok()) return;
    const std::string message = status.message.empty() ? statusCodeName(status.code) : status.message;
    switch (status.code) {
        case StatusCode::invalidArgument:
        case StatusCode::badStructure:
        case StatusCode::nonFiniteValue:
            raise(PyExc_ValueError, message);
        case StatusCode::notAnalyzed:
        case StatusCode::notFactored:
            raise(PyExc_RuntimeError, message);
        case StatusCode::outOfMemory:
            raise(PyExc_MemoryError, message);
        case StatusCode::zeroPivot:
        case StatusCode::nonFinitePivot:
        case StatusCode::updateFailed: {
            py::object type = py::reinterpret_borrow<py::object>(factorizationError);
            py::object error = type(message);
            error.attr("pivot") = pivot ? pivotDict(*pivot) : py::none();
            error.attr("code") = statusCodeName(status.code);
            PyErr_SetObject(factorizationError, error.ptr());
            throw py::error_already_set();
        }
        default:
            raise(PyExc_RuntimeError, message);
    }
}

std::string notAnalyzed(const char* call) {
    return std::string(call) + ": the solver holds no structure yet (call analyze or analyze_matrix first)";
}

// An id or count from Python as a 32-bit unsigned value; ValueError naming `what` otherwise (a negative id
// would otherwise reach the caller as pybind11's unhelpful "incompatible function arguments").
unsigned int toUnsigned(long long value, const char* what) {
    if (value < 0 || value > static_cast<long long>(UINT_MAX))
        raise(PyExc_ValueError, std::string(what) + " " + std::to_string(value) + " is out of range");
    return static_cast<unsigned int>(value);
}

// ---------------------------------------------------------------------------------------------------------
// Options
// ---------------------------------------------------------------------------------------------------------

const char* const orderingNames[] = {"automatic", "minimum_degree", "natural", "centroid"};
const char* const switchingNames[] = {"automatic", "update", "refactor"};

template <std::size_t N>
unsigned int parseName(const py::handle& value, const char* const (&names)[N], const char* option) {
    std::string valid;
    if (py::isinstance<py::str>(value)) {
        const std::string s = value.cast<std::string>();
        for (std::size_t i = 0; i < N; ++i)
            if (s == names[i]) return static_cast<unsigned int>(i);
    }
    for (std::size_t i = 0; i < N; ++i) valid += std::string(i ? ", " : "") + "'" + names[i] + "'";
    raise(PyExc_ValueError, std::string("option ") + option + " must be one of " + valid + ", not " +
                                py::repr(value).cast<std::string>());
}

template <typename V>
V optionValue(const py::handle& value, const char* option, const char* kind) {
    try {
        return value.cast<V>();
    } catch (const py::cast_error&) {
        raise(PyExc_TypeError, std::string("option ") + option + " must be " + kind + ", not " +
                                   py::repr(value).cast<std::string>());
    }
}

// The options a call names, as bits of a mask.
enum OptionBit : unsigned int {
    orderingBit = 1u << 0,
    switchingBit = 1u << 1,
    mergeBlocksBit = 1u << 2,
    checkValuesBit = 1u << 3,
    threadsBit = 1u << 4,
    maxThreadsBit = 1u << 5,
    refinementStepsBit = 1u << 6,
    regularizationBit = 1u << 7,
};

// Reads keyword options into `options` (unknown names are a TypeError, as for any Python call); returns the
// mask of the options given. Reading a value may run Python code (its __float__, __index__, __bool__ or
// __repr__).
unsigned int parseOptions(const py::kwargs& kwargs, SolverOptions& options) {
    unsigned int given = 0;
    for (auto item : kwargs) {
        const std::string key = item.first.cast<std::string>();
        const py::handle value = item.second;
        if (key == "ordering") {
            options.ordering = static_cast<OrderingMethod>(parseName(value, orderingNames, "ordering"));
            given |= orderingBit;
        } else if (key == "switching") {
            options.switching = static_cast<SwitchMethod>(parseName(value, switchingNames, "switching"));
            given |= switchingBit;
        } else if (key == "merge_blocks") {
            options.mergeBlocks = optionValue<bool>(value, "merge_blocks", "a bool");
            given |= mergeBlocksBit;
        } else if (key == "check_values") {
            options.checkValues = optionValue<bool>(value, "check_values", "a bool");
            given |= checkValuesBit;
        } else if (key == "threads" || key == "max_threads" || key == "refinement_steps") {
            const long long v = optionValue<long long>(value, key.c_str(), "an int");
            (key == "threads"       ? options.threads
             : key == "max_threads" ? options.maxThreads
                                    : options.refinementSteps) = toUnsigned(v, key.c_str());
            given |= key == "threads"       ? threadsBit
                     : key == "max_threads" ? maxThreadsBit
                                            : refinementStepsBit;
        } else if (key == "regularization") {
            options.regularization = optionValue<double>(value, "regularization", "a float");
            given |= regularizationBit;
        } else {
            raise(PyExc_TypeError,
                  "unknown option '" + key +
                      "' (options: ordering, merge_blocks, threads, max_threads, refinement_steps, "
                      "check_values, regularization, switching)");
        }
    }
    return given;
}

// `to` with the options of mask `given` taken from `from`.
SolverOptions mergeOptions(SolverOptions to, const SolverOptions& from, unsigned int given) {
    if (given & orderingBit) to.ordering = from.ordering;
    if (given & switchingBit) to.switching = from.switching;
    if (given & mergeBlocksBit) to.mergeBlocks = from.mergeBlocks;
    if (given & checkValuesBit) to.checkValues = from.checkValues;
    if (given & threadsBit) to.threads = from.threads;
    if (given & maxThreadsBit) to.maxThreads = from.maxThreads;
    if (given & refinementStepsBit) to.refinementSteps = from.refinementSteps;
    if (given & regularizationBit) to.regularization = from.regularization;
    return to;
}

py::dict optionsDict(const SolverOptions& o) {
    py::dict d;
    d["ordering"] = orderingNames[static_cast<unsigned int>(o.ordering)];
    d["merge_blocks"] = o.mergeBlocks;
    d["threads"] = o.threads;
    d["max_threads"] = o.maxThreads;
    d["refinement_steps"] = o.refinementSteps;
    d["check_values"] = o.checkValues;
    d["regularization"] = o.regularization;
    d["switching"] = switchingNames[static_cast<unsigned int>(o.switching)];
    return d;
}

py::dict reportDict(const SolverReport& r) {
    py::dict d;
    d["bodies"] = r.bodies;
    d["constraints"] = r.constraints;
    d["rows"] = r.rows;
    d["ordering"] = r.ordering;
    d["blocks"] = r.blocks;
    d["factor_blocks"] = r.factorBlocks;
    d["factor_entries"] = r.factorEntries;
    d["explicit_zeros"] = r.explicitZeros;
    d["flops"] = r.flops;
    d["predicted_factor_seconds"] = r.predictedFactorSeconds;
    d["analyze_seconds"] = r.analyzeSeconds;
    d["path"] = r.path;
    d["threads"] = r.threads;
    d["factor_seconds"] = r.factorSeconds;
    d["factorizations"] = r.factorizations;
    d["inertia"] = py::make_tuple(r.positivePivots, r.negativePivots, r.zeroPivots);
    d["smallest_pivot"] = pivotDict(r.smallestPivot);
    d["bad_pivot"] = pivotDict(r.badPivot);
    d["regularized"] = r.regularized;
    d["solve_seconds"] = r.solveSeconds;
    d["refine_seconds"] = r.refineSeconds;
    d["refinement_steps"] = r.refinementSteps;
    d["residual"] = r.residual;
    d["switched_off"] = r.switchedOff;
    d["switched_on"] = r.switchedOn;
    d["switch_path"] = r.switchPath;
    d["switch_seconds"] = r.switchSeconds;
    return d;
}

// ---------------------------------------------------------------------------------------------------------
// Arrays
// ---------------------------------------------------------------------------------------------------------

template <typename T>
const char* dtypeName() {
    return sizeof(T) == 4 ? "float32" : "float64";
}

std::string shapeString(const py::array& a) {
    std::string s = "(";
    for (py::ssize_t i = 0; i < a.ndim(); ++i) s += (i ? ", " : "") + std::to_string(a.shape(i));
    return s + (a.ndim() == 1 ? ",)" : ")");
}

// `value` as a NumPy array of exactly the dtype T (TypeError otherwise, naming `what`).
template <typename T>
py::array asArrayOf(const py::handle& value, const std::string& what) {
    if (!py::isinstance<py::array>(value))
        raise(PyExc_TypeError, what + ": expected a numpy.ndarray of " + dtypeName<T>() + ", got " +
                                   py::str(py::type::handle_of(value)).cast<std::string>());
    py::array a = py::reinterpret_borrow<py::array>(value);
    if (!py::isinstance<py::array_t<T>>(a))
        raise(PyExc_TypeError, what + ": the array has dtype " +
                                   py::str(py::handle(a.dtype())).cast<std::string>() +
                                   ", the solver holds " + dtypeName<T>() +
                                   " (convert it explicitly with .astype(numpy." + dtypeName<T>() + "))");
    return a;
}

// The values of `a` in C order: the array itself when it is C-contiguous, otherwise a C-ordered copy in the
// same precision (kept alive by the returned array).
template <typename T>
py::array_t<T, py::array::c_style> cOrdered(const py::array& a) {
    return py::array_t<T, py::array::c_style>::ensure(a);
}

// Values of one s_r × s_c block: a 2-D array of that shape (ValueError otherwise).
template <typename T>
py::array_t<T, py::array::c_style> blockValues(const py::handle& value, unsigned int rows, unsigned int cols,
                                               const std::string& what) {
    py::array a = asArrayOf<T>(value, what);
    if (a.ndim() != 2 || a.shape(0) != static_cast<py::ssize_t>(rows) ||
        a.shape(1) != static_cast<py::ssize_t>(cols))
        raise(PyExc_ValueError, what + ": expected an array of shape (" + std::to_string(rows) + ", " +
                                    std::to_string(cols) + "), got shape " + shapeString(a));
    return cOrdered<T>(a);
}

// `count` values in any shape (read in C order): for the concatenated arrays of set_values.
template <typename T>
py::array_t<T, py::array::c_style> flatValues(const py::handle& value, unsigned long count,
                                              const std::string& what) {
    py::array a = asArrayOf<T>(value, what);
    if (static_cast<unsigned long>(a.size()) != count)
        raise(PyExc_ValueError, what + ": expected " + std::to_string(count) +
                                    " values, got an array of shape " + shapeString(a) + " (" +
                                    std::to_string(a.size()) + " values)");
    return cOrdered<T>(a);
}

// The layout of a 1-D or 2-D array, read while the GIL is held, so that its values can be copied without it.
struct Strided {
    const char* base;
    py::ssize_t rows, cols, rowStride, colStride;
};
Strided stridedOf(const py::array& a) {
    const bool matrix = a.ndim() == 2;
    return {static_cast<const char*>(a.data()), a.shape(0), matrix ? a.shape(1) : 1, a.strides(0),
            matrix ? a.strides(1) : 0};
}

// Copies the rows × cols values of b (any strides) into x, column-major with leading dimension rows.
template <typename T>
void copyColumns(const Strided& b, T* x) {
    for (py::ssize_t j = 0; j < b.cols; ++j) {
        const char* column = b.base + j * b.colStride;
        if (b.rowStride == static_cast<py::ssize_t>(sizeof(T))) {
            std::memcpy(x + j * b.rows, column, static_cast<std::size_t>(b.rows) * sizeof(T));
        } else {
            for (py::ssize_t i = 0; i < b.rows; ++i)
                std::memcpy(x + j * b.rows + i, column + i * b.rowStride, sizeof(T));
        }
    }
}

template <typename T>
bool allFinite(const T* x, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i)
        if (!std::isfinite(x[i])) return false;
    return true;
}

// ---------------------------------------------------------------------------------------------------------
// The lower triangle of a symmetric CSC matrix
// ---------------------------------------------------------------------------------------------------------

using IndexArray = py::array_t<std::int32_t, py::array::c_style | py::array::forcecast>;

// The lower triangle L (entries i >= j) of the symmetric matrix held by a CSC matrix with sorted, unique row
// indices in each column: n, colPointers [n + 1], rowIndices and values [colPointers[n]], holding its lower
// triangle, its upper triangle or both. Returns (triangle, L's column pointers, row indices, values,
// diagonal) with triangle "lower", "upper" or "full" ("lower" also for a diagonal matrix) and diagonal [n]
// the diagonal entries (0 where none is stored). A full matrix must be symmetric to rounding:
// |a_ij − a_ji| <= tolerance·max |a| for every pair, an entry without a partner counting against a zero;
// otherwise ValueError naming the worst pair. One pass over the entries (two for the full case).
template <typename T>
py::tuple lowerTriangle(std::size_t n, const std::int32_t* cp, const std::int32_t* ri, const T* values,
                        double tolerance) {
    bool upper = false, lower = false;
    for (std::size_t j = 0; j < n; ++j) {
        if (cp[j] == cp[j + 1]) continue;
        upper |= ri[cp[j]] < static_cast<std::int32_t>(j);
        lower |= ri[cp[j + 1] - 1] > static_cast<std::int32_t>(j);
    }
    py::array_t<T> diagonal(static_cast<py::ssize_t>(n));
    T* d = diagonal.mutable_data();
    std::fill(d, d + n, T(0));
    const std::size_t nnz = static_cast<std::size_t>(cp[n]);
    if (!upper) {  // lower or diagonal: L is the matrix itself
        for (std::size_t j = 0; j < n; ++j)
            if (cp[j] < cp[j + 1] && ri[cp[j]] == static_cast<std::int32_t>(j)) d[j] = values[cp[j]];
        return py::make_tuple("lower", py::none(), py::none(), py::none(), diagonal);
    }
    // Entries of L per column.
    std::vector<std::int32_t> counts(n + 1, 0);
    if (!lower) {  // upper only: L = the transpose (entry (i, j), i <= j, goes to column i)
        for (std::size_t k = 0; k < nnz; ++k) ++counts[static_cast<std::size_t>(ri[k]) + 1];
    } else {
        for (std::size_t j = 0; j < n; ++j)
            for (std::int32_t k = cp[j]; k < cp[j + 1]; ++k)
                counts[j + 1] += ri[k] >= static_cast<std::int32_t>(j);
    }
    IndexArray lp(static_cast<py::ssize_t>(n + 1));
    std::int32_t* p = lp.mutable_data();
    p[0] = 0;
    for (std::size_t j = 0; j < n; ++j) p[j + 1] = p[j] + counts[j + 1];
    const std::size_t entries = static_cast<std::size_t>(p[n]);
    IndexArray li(static_cast<py::ssize_t>(entries));
    py::array_t<T> lv(static_cast<py::ssize_t>(entries));
    std::int32_t* i_ = li.mutable_data();
    T* v = lv.mutable_data();
    if (!lower) {
        std::vector<std::int32_t> next(p, p + n);
        for (std::size_t j = 0; j < n; ++j)  // columns ascending: rows of each column of L come out sorted
            for (std::int32_t k = cp[j]; k < cp[j + 1]; ++k) {
                const std::int32_t at = next[static_cast<std::size_t>(ri[k])]++;
                i_[at] = static_cast<std::int32_t>(j);
                v[at] = values[k];
            }
    } else {
        for (std::size_t j = 0, at = 0; j < n; ++j)
            for (std::int32_t k = cp[j]; k < cp[j + 1]; ++k)
                if (ri[k] >= static_cast<std::int32_t>(j)) i_[at] = ri[k], v[at++] = values[k];
        // Every upper entry (i, j) against its partner (j, i) in column i of L. Columns are visited in
        // ascending order, so the partners asked of one column of L come in ascending rows: one cursor per
        // column, after its diagonal, and an entry of L a cursor passes has no upper partner.
        double scale = 0.0;
        for (std::size_t k = 0; k < nnz; ++k)
            scale = std::max(scale, std::fabs(static_cast<double>(values[k])));
        const double limit = tolerance * scale;
        double worst = 0.0;
        std::size_t wi = 0, wj = 0;
        auto compare = [&](std::size_t i, std::size_t j, double a, double b) {  // a = A(i, j), b = A(j, i)
            const double diff = std::fabs(a - b);
            if (diff > worst) worst = diff, wi = i, wj = j;
        };
        std::vector<std::int32_t> cursor(p, p + n);
        for (std::size_t j = 0; j < n; ++j)
            if (cursor[j] < p[j + 1] && i_[cursor[j]] == static_cast<std::int32_t>(j)) ++cursor[j];
        for (std::size_t j = 0; j < n; ++j) {
            for (std::int32_t k = cp[j]; k < cp[j + 1] && ri[k] < static_cast<std::int32_t>(j); ++k) {
                const std::size_t i = static_cast<std::size_t>(ri[k]);
                std::int32_t& c = cursor[i];
                for (; c < p[i + 1] && i_[c] < static_cast<std::int32_t>(j); ++c)
                    compare(static_cast<std::size_t>(i_[c]), i, static_cast<double>(v[c]), 0.0);
                if (c < p[i + 1] && i_[c] == static_cast<std::int32_t>(j)) {
                    compare(i, j, static_cast<double>(values[k]), static_cast<double>(v[c]));
                    ++c;
                } else {
                    compare(i, j, static_cast<double>(values[k]), 0.0);
                }
            }
        }
        for (std::size_t i = 0; i < n; ++i)
            for (std::int32_t c = cursor[i]; c < p[i + 1]; ++c)
                compare(static_cast<std::size_t>(i_[c]), i, static_cast<double>(v[c]), 0.0);
        if (worst > limit)
            raise(PyExc_ValueError, "A is not symmetric: |A[" + std::to_string(wi) + ", " +
                                        std::to_string(wj) + "] - A[" + std::to_string(wj) + ", " +
                                        std::to_string(wi) + "]| = " + std::to_string(worst) +
                                        " (largest |entry| " + std::to_string(scale) + ")");
    }
    for (std::size_t j = 0; j < n; ++j)
        if (p[j] < p[j + 1] && i_[p[j]] == static_cast<std::int32_t>(j)) d[j] = v[p[j]];
    return py::make_tuple(lower ? "full" : "upper", lp, li, lv, diagonal);
}

py::tuple lowerTriangleOf(const py::handle& colPointers, const py::handle& rowIndices,
                          const py::handle& values, double tolerance) {
    IndexArray cp = IndexArray::ensure(colPointers), ri = IndexArray::ensure(rowIndices);
    if (!cp || !ri || cp.ndim() != 1 || cp.size() < 1)
        raise(PyExc_TypeError, "lower triangle: index arrays must be 1-D integer arrays");
    const std::size_t n = static_cast<std::size_t>(cp.size() - 1);
    const std::int32_t* p = cp.data();
    if (p[0] != 0 || static_cast<py::ssize_t>(p[n]) != ri.size())
        raise(PyExc_ValueError, "lower triangle: the column pointers do not match the row indices");
    for (std::size_t j = 0; j < n; ++j)
        if (p[j + 1] < p[j]) raise(PyExc_ValueError, "lower triangle: column pointers decrease");
    for (py::ssize_t k = 0; k < ri.size(); ++k)
        if (ri.data()[k] < 0 || static_cast<std::size_t>(ri.data()[k]) >= n)
            raise(PyExc_ValueError, "lower triangle: row index out of range");
    if (py::isinstance<py::array_t<double>>(values)) {
        auto v = py::array_t<double, py::array::c_style>::ensure(values);
        if (v.size() != ri.size()) raise(PyExc_ValueError, "lower triangle: one value per row index");
        return lowerTriangle<double>(n, p, ri.data(), v.data(), tolerance);
    }
    if (py::isinstance<py::array_t<float>>(values)) {
        auto v = py::array_t<float, py::array::c_style>::ensure(values);
        if (v.size() != ri.size()) raise(PyExc_ValueError, "lower triangle: one value per row index");
        return lowerTriangle<float>(n, p, ri.data(), v.data(), tolerance);
    }
    raise(PyExc_TypeError, "lower triangle: values must be float32 or float64");
}

// r = b − A·x and the worst scaled residual ‖r‖∞ / (‖A‖∞·‖x‖∞ + ‖b‖∞) over the k columns, for the symmetric
// A whose lower triangle is given in CSC arrays (n + 1 column pointers, row indices and values, rows >= the
// column, sorted) and b, x of n × k values in Fortran order. One pass over the entries per column; returns
// (r, scaled residual) with r in Fortran order.
py::tuple symmetricResidual(const py::handle& colPointers, const py::handle& rowIndices,
                            const py::handle& values, const py::handle& rhs, const py::handle& solution) {
    IndexArray cp = IndexArray::ensure(colPointers), ri = IndexArray::ensure(rowIndices);
    using Values = py::array_t<double, py::array::f_style>;
    if (!py::isinstance<py::array_t<double>>(values) || !py::isinstance<py::array_t<double>>(rhs) ||
        !py::isinstance<py::array_t<double>>(solution) || !cp || !ri)
        raise(PyExc_TypeError, "residual: float64 values and vectors, integer index arrays");
    auto v = py::array_t<double, py::array::c_style>::ensure(values);
    Values b = Values::ensure(rhs), x = Values::ensure(solution);
    const std::size_t n = static_cast<std::size_t>(cp.size()) - 1;
    const std::int32_t* p = cp.data();
    const std::int32_t* i_ = ri.data();
    if (cp.size() < 1 || p[n] != ri.size() || ri.size() != v.size() || b.ndim() != x.ndim() ||
        static_cast<std::size_t>(b.shape(0)) != n || b.size() != x.size())
        raise(PyExc_ValueError, "residual: sizes do not match");
    for (py::ssize_t k = 0; k < ri.size(); ++k)
        if (i_[k] < 0 || static_cast<std::size_t>(i_[k]) >= n)
            raise(PyExc_ValueError, "residual: row index out of range");
    const std::size_t k = n ? static_cast<std::size_t>(b.size()) / n : 0;
    Values r(b.ndim() == 1
                 ? std::vector<py::ssize_t>{static_cast<py::ssize_t>(n)}
                 : std::vector<py::ssize_t>{static_cast<py::ssize_t>(n), static_cast<py::ssize_t>(k)});
    const double *a = v.data(), *pb = b.data(), *px = x.data();
    double* pr = r.mutable_data();
    std::vector<double> rowSums(n, 0.0);
    for (std::size_t j = 0; j < n; ++j)
        for (std::int32_t e = p[j]; e < p[j + 1]; ++e) {
            const std::size_t i = static_cast<std::size_t>(i_[e]);
            rowSums[i] += std::fabs(a[e]);
            if (i != j) rowSums[j] += std::fabs(a[e]);
        }
    const double normA = n ? *std::max_element(rowSums.begin(), rowSums.end()) : 0.0;
    double worst = 0.0;
    for (std::size_t c = 0; c < k; ++c) {
        const double* bc = pb + c * n;
        const double* xc = px + c * n;
        double* rc = pr + c * n;
        std::copy(bc, bc + n, rc);
        for (std::size_t j = 0; j < n; ++j)
            for (std::int32_t e = p[j]; e < p[j + 1]; ++e) {
                const std::size_t i = static_cast<std::size_t>(i_[e]);
                rc[i] -= a[e] * xc[j];              // r_i −= a_ij·x_j
                if (i != j) rc[j] -= a[e] * xc[i];  // r_j −= a_ji·x_i
            }
        double nr = 0.0, nx = 0.0, nb = 0.0;
        for (std::size_t q = 0; q < n; ++q) {
            nr = std::max(nr, std::fabs(rc[q]));
            nx = std::max(nx, std::fabs(xc[q]));
            nb = std::max(nb, std::fabs(bc[q]));
        }
        const double scale = normA * nx + nb;
        if (scale > 0) worst = std::max(worst, nr / scale);
    }
    return py::make_tuple(r, worst);
}

// ---------------------------------------------------------------------------------------------------------
// The solver object
// ---------------------------------------------------------------------------------------------------------

template <typename S>
struct ScalarOfSolver;
template <typename T>
struct ScalarOfSolver<Solver<T>> {
    using type = T;
};
// The scalar type of a (possibly const) Solver<T> reference.
template <typename S>
using ScalarOf = typename ScalarOfSolver<std::remove_cv_t<std::remove_reference_t<S>>>::type;

// Locking: every call into the library holds mutex_, and so does every read or write of the wrapper's own
// record of the structure (the sizes the shape checks use). Calls that run long release the GIL first and
// only then take the mutex, and give the mutex back before they take the GIL again; short calls take the
// mutex with the GIL held, and while they hold it they run no Python code and create no Python object (an
// error found is thrown as a Deferred and raised once the mutex is released). So no thread ever waits for
// the GIL while it holds the mutex, and no thread deadlocks.
// Converting an argument is no short call: it may run Python code (a type's __repr__ in an error message,
// NumPy's own Python code, an option's __float__) or release the GIL (NumPy copies a large strided array
// without it), and another thread may take the GIL meanwhile. So a call that converts arrays (the setters,
// the one-call factor, solve) reads the sizes it checks them against and the analysis generation under the
// mutex, converts without the mutex, then takes the mutex again for the library call and first checks the
// generation: should another thread have analysed the object again in between, the call fails with a
// RuntimeError naming it instead of reading an array of the wrong size.
class PySolver {
public:
    PySolver(const py::object& dtype, const py::kwargs& kwargs) {
        const py::dtype dt = py::dtype::from_args(dtype);
        if (dt.equal(py::dtype::of<double>())) {
            double_ = std::make_unique<Solver<double>>();
        } else if (dt.equal(py::dtype::of<float>())) {
            float_ = std::make_unique<Solver<float>>();
        } else {
            raise(PyExc_TypeError, "Solver: dtype must be numpy.float32 or numpy.float64, not " +
                                       py::str(py::handle(dt)).cast<std::string>());
        }
        setOptions(kwargs);
    }

    py::dtype dtype() const { return double_ ? py::dtype::of<double>() : py::dtype::of<float>(); }

    // f(solver) on whichever solver the object holds (the caller holds the mutex).
    template <typename F>
    auto visit(F&& f) {
        return double_ ? f(*double_) : f(*float_);
    }
    // f() under the mutex, with the GIL held (short calls: no Python code, no Python object; an error is
    // thrown by fail() and raised here once the mutex is released).
    template <typename F>
    auto underMutex(F&& f) {
        try {
            std::lock_guard<std::mutex> lock(mutex_);
            return f();
        } catch (const Deferred& e) {
            raise(e.type, e.message);
        }
    }
    // f(solver) under the mutex, with the GIL held (short calls, as underMutex).
    template <typename F>
    auto locked(F&& f) {
        return underMutex([&]() { return visit(f); });
    }
    // f() under the mutex, with the GIL held, if no analysis happened since `generation` was read (the sizes
    // an argument was checked against are still the object's); RuntimeError naming `call` otherwise.
    template <typename F>
    auto unchangedSince(std::uint64_t generation, const char* call, F&& f) {
        return underMutex([&]() {
            if (generation_ != generation)
                fail(PyExc_RuntimeError,
                     std::string(call) + ": another thread analysed the solver again during this call");
            return f();
        });
    }
    // f() under the mutex without the GIL (analysis, factorization, solves).
    template <typename F>
    auto withoutGil(F&& f) {
        py::gil_scoped_release release;
        std::lock_guard<std::mutex> lock(mutex_);
        return f();
    }

    // The options named are read without the mutex (reading them may run Python code), then merged into the
    // object's current options under it.
    void setOptions(const py::kwargs& kwargs) {
        SolverOptions parsed;
        const unsigned int given = parseOptions(kwargs, parsed);
        check(locked([&](auto& s) { return s.setOptions(mergeOptions(s.options(), parsed, given)); }));
    }
    py::dict options() {
        return optionsDict(locked([](auto& s) { return s.options(); }));
    }

    void analyze(const SystemStructure& structure) {
        const SystemStructure copy = structure;  // the Python object may change while the GIL is released
        check(withoutGil([&]() {
            Status st = visit([&](auto& s) { return s.analyze(copy); });
            if (st.ok()) {
                blockSizes_ = copy.bodySizes;
                blockSizes_.insert(blockSizes_.end(), copy.constraintSizes.begin(),
                                   copy.constraintSizes.end());
                numBodies_ = copy.numBodies();
                scalarValues_ = 0;
                ++generation_;
            }
            return st;
        }));
    }

    void analyzeCsc(long long n, long long firstConstraintRow, const py::handle& colPointers,
                    const py::handle& rowIndices, const py::handle& blockSizes) {
        const unsigned int rows = toUnsigned(n, "n");
        const unsigned int first = toUnsigned(firstConstraintRow, "first_constraint_row");
        using Indices = py::array_t<unsigned int, py::array::c_style | py::array::forcecast>;
        Indices cp = Indices::ensure(colPointers), ri = Indices::ensure(rowIndices), bs;
        if (!cp || !ri) raise(PyExc_TypeError, "analyze_matrix: index arrays must be integer arrays");
        if (static_cast<unsigned long>(cp.size()) != static_cast<unsigned long>(rows) + 1)
            raise(PyExc_ValueError, "analyze_matrix: " + std::to_string(cp.size()) +
                                        " column pointers for n = " + std::to_string(rows) + " (need n + 1)");
        const unsigned long entries = cp.data()[rows];
        if (static_cast<unsigned long>(ri.size()) != entries)
            raise(PyExc_ValueError, "analyze_matrix: " + std::to_string(ri.size()) +
                                        " row indices, the column pointers end at " +
                                        std::to_string(entries));
        const unsigned int* sizes = nullptr;
        unsigned int numBlocks = 0;
        if (!blockSizes.is_none()) {
            bs = Indices::ensure(blockSizes);
            if (!bs || bs.ndim() != 1)
                raise(PyExc_TypeError, "analyze_matrix: block_sizes must be a 1-D integer array");
            sizes = bs.data();
            numBlocks = toUnsigned(static_cast<long long>(bs.size()), "number of blocks");
        }
        const unsigned int *colData = cp.data(), *rowData = ri.data();
        check(withoutGil([&]() {
            Status st = visit(
                [&](auto& s) { return s.analyzeScalar(rows, first, colData, rowData, sizes, numBlocks); });
            if (st.ok()) {
                // Block sizes are known when given; detected blocks are the analysis's own.
                blockSizes_.assign(sizes, sizes + (sizes ? numBlocks : 0));
                numBodies_ = 0;
                for (unsigned int i = 0, row = 0; sizes && i < numBlocks && row < first; row += sizes[i++])
                    ++numBodies_;
                scalarValues_ = entries;
                ++generation_;
            }
            return st;
        }));
    }
    bool isAnalyzed() {
        return locked([](auto& s) { return s.isAnalyzed(); });
    }

    // ---- values ----
    // Each setter reads the shapes it checks the arrays against (naming a bad id first) and the analysis
    // generation under the mutex, converts the arrays without it, and sets the values under it again once the
    // generation shows the structure is still the one the shapes were read from.

    // The shape of one block and the analysis it belongs to.
    struct BlockShape {
        unsigned int rows, cols;
        std::uint64_t generation;
    };
    BlockShape blockShape(unsigned int rows, unsigned int cols) const { return {rows, cols, generation_}; }

    // set(solver, values) with `values` converted to a block of `shape` (TypeError or ValueError naming
    // `call`).
    template <typename Set>
    void setBlockValues(const char* call, const py::handle& values, const BlockShape& shape, Set&& set) {
        visit([&](auto& solver) {
            auto a = blockValues<ScalarOf<decltype(solver)>>(values, shape.rows, shape.cols, call);
            check(unchangedSince(shape.generation, call, [&]() { return set(solver, a.data()); }));
        });
    }

    void setBody(long long body, const py::handle& values) {
        const BlockShape shape = underMutex([&]() {
            const unsigned int s = bodySize(body, "set_body");
            return blockShape(s, s);
        });
        setBlockValues("set_body", values, shape, [&](auto& solver, const auto* a) {
            return solver.setBody(static_cast<unsigned int>(body), a);
        });
    }
    void setJacobian(long long constraint, long long body, const py::handle& values) {
        const BlockShape shape = underMutex([&]() {
            const unsigned int sc = constraintSize(constraint, "set_jacobian"),
                               sb = bodySize(body, "set_jacobian");
            return blockShape(sc, sb);
        });
        setBlockValues("set_jacobian", values, shape, [&](auto& solver, const auto* a) {
            return solver.setJacobian(static_cast<unsigned int>(constraint), static_cast<unsigned int>(body),
                                      a);
        });
    }
    void setBodyCoupling(long long body1, long long body2, const py::handle& values) {
        const BlockShape shape = underMutex([&]() {
            const unsigned int s1 = bodySize(body1, "set_body_coupling"),
                               s2 = bodySize(body2, "set_body_coupling");
            return blockShape(s1, s2);
        });
        setBlockValues("set_body_coupling", values, shape, [&](auto& solver, const auto* a) {
            return solver.setBodyCoupling(static_cast<unsigned int>(body1), static_cast<unsigned int>(body2),
                                          a);
        });
    }
    void setCompliance(long long constraint, const py::handle& values) {
        const BlockShape shape = underMutex([&]() {
            const unsigned int s = constraintSize(constraint, "set_compliance");
            return blockShape(s, s);
        });
        setBlockValues("set_compliance", values, shape, [&](auto& solver, const auto* a) {
            return solver.setCompliance(static_cast<unsigned int>(constraint), a);
        });
    }
    void setBlock(long long i, long long j, const py::handle& values) {
        const BlockShape shape = underMutex([&]() {
            const unsigned int si = blockSize(i, "set_block"), sj = blockSize(j, "set_block");
            return blockShape(si, sj);
        });
        setBlockValues("set_block", values, shape, [&](auto& solver, const auto* a) {
            return solver.setBlock(static_cast<unsigned int>(i), static_cast<unsigned int>(j), a);
        });
    }
    void setValues(const py::handle& bodies, const py::handle& jacobians, const py::handle& couplings,
                   const py::handle& compliances) {
        visit([&](auto& solver) {
            using T = ScalarOf<decltype(solver)>;
            std::array<unsigned long, 4> counts;
            std::uint64_t generation;
            underMutex([&]() {
                counts = valueCounts(solver);
                generation = generation_;
                return 0;
            });
            const ValueArrays<T> v(counts, {bodies, jacobians, couplings, compliances});
            const T* const* p = v.pointers;
            check(unchangedSince(generation, "set_values",
                                 [&]() { return solver.setValues(p[0], p[1], p[2], p[3]); }));
        });
    }
    void setScalarValues(const py::handle& values) {
        visit([&](auto& solver) {
            unsigned long count;
            std::uint64_t generation;
            underMutex([&]() {
                if (!solver.isAnalyzed()) fail(PyExc_RuntimeError, notAnalyzed("set_scalar_values"));
                if (scalarValues_ == 0)
                    fail(PyExc_ValueError,
                         "set_scalar_values: the solver holds a body/constraint structure, not a "
                         "matrix given to analyze_matrix");
                count = scalarValues_;
                generation = generation_;
                return 0;
            });
            auto a = flatValues<ScalarOf<decltype(solver)>>(values, count, "set_scalar_values");
            check(unchangedSince(generation, "set_scalar_values",
                                 [&]() { return solver.setScalarValues(a.data()); }));
        });
    }

    // ---- switching ----

    void setActive(long long constraint, long long row, bool on) {
        const unsigned int c = toUnsigned(constraint, "constraint"), r = toUnsigned(row, "row");
        check(locked([&](auto& s) { return s.setActive(c, r, on); }));
    }
    void setConstraintActive(long long constraint, bool on) {
        const unsigned int c = toUnsigned(constraint, "constraint");
        check(locked([&](auto& s) { return s.setConstraintActive(c, on); }));
    }
    bool isActive(long long constraint, long long row) {
        return underMutex([&]() {
            const unsigned int rows = constraintSize(constraint, "is_active");
            if (row < 0 || row >= static_cast<long long>(rows))
                fail(PyExc_ValueError, "is_active: constraint " + std::to_string(constraint) + " has " +
                                           std::to_string(rows) + " rows, not row " + std::to_string(row));
            return visit([&](auto& s) {
                return s.isActive(static_cast<unsigned int>(constraint), static_cast<unsigned int>(row));
            });
        });
    }

    // ---- factorization and solves ----

    // factor(): the values held. With arrays: the one-call step, set_values(...) followed by factor()
    // (the same checks and messages), the values written as the factorization reaches them.
    void factor(const py::handle& bodies, const py::handle& jacobians, const py::handle& couplings,
                const py::handle& compliances) {
        PivotLocation pivot;
        if (bodies.is_none() && jacobians.is_none() && couplings.is_none() && compliances.is_none()) {
            const Status st = withoutGil([&]() {
                return visit([&](auto& s) {
                    Status result = s.factor();
                    if (!result.ok()) pivot = s.badPivot();
                    return result;
                });
            });
            check(st, &pivot);
            return;
        }
        visit([&](auto& solver) {
            using T = ScalarOf<decltype(solver)>;
            std::array<unsigned long, 4> counts;
            std::uint64_t generation;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                counts = valueCounts(solver);
                generation = generation_;
            }
            // Converted with the GIL and without the mutex (a conversion may run Python code).
            const ValueArrays<T> v(counts, {bodies, jacobians, couplings, compliances});
            bool reanalyzed = false;
            const Status st = withoutGil([&]() {
                if (generation_ != generation) {  // the counts checked above are of another structure
                    reanalyzed = true;
                    return Status();
                }
                const T* const* p = v.pointers;
                Status result = solver.factor(p[0], p[1], p[2], p[3]);
                if (!result.ok()) pivot = solver.badPivot();
                return result;
            });
            if (reanalyzed)
                raise(PyExc_RuntimeError,
                      "factor: another thread analysed the solver again during this call");
            check(st, &pivot);
        });
    }

    // x = A⁻¹·b for b of shape (N,) or (N, k), into a new array (C order for a vector, Fortran order for k
    // columns) or into `out`: a writeable array of b's shape and dtype, C-contiguous for a vector and
    // Fortran-contiguous for k columns (it may be b itself). With out, the solve works in the object's
    // scratch and writes out only on success, allocating nothing after the first call of its size.
    py::array solve(const py::handle& rhs, const py::handle& out) {
        return visit([&](auto& solver) -> py::array {
            using T = ScalarOf<decltype(solver)>;
            py::array b = asArrayOf<T>(rhs, "solve");
            bool analyzed, checkValues;
            unsigned long n;
            std::uint64_t generation;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                analyzed = solver.isAnalyzed();
                n = solver.size();
                checkValues = solver.options().checkValues;
                generation = generation_;
            }
            if (!analyzed) raise(PyExc_RuntimeError, notAnalyzed("solve"));
            if ((b.ndim() != 1 && b.ndim() != 2) || static_cast<unsigned long>(b.shape(0)) != n)
                raise(PyExc_ValueError, "solve: expected a right-hand side of shape (" + std::to_string(n) +
                                            ",) or (" + std::to_string(n) + ", k), got shape " +
                                            shapeString(b));
            const bool vector = b.ndim() == 1;
            const py::ssize_t k = vector ? 1 : b.shape(1);
            if (k > static_cast<py::ssize_t>(UINT_MAX))
                raise(PyExc_ValueError, "solve: too many right-hand sides (" + std::to_string(k) + ")");
            py::array result;
            if (out.is_none()) {
                result = py::array_t<T, py::array::f_style>(vector ? std::vector<py::ssize_t>{b.shape(0)}
                                                                   : std::vector<py::ssize_t>{b.shape(0), k});
            } else {
                result = asArrayOf<T>(out, "solve: out");
                const int layout = vector ? py::array::c_style : py::array::f_style;
                bool same = result.ndim() == b.ndim();
                for (py::ssize_t d = 0; same && d < b.ndim(); ++d) same = result.shape(d) == b.shape(d);
                if (!same || !result.writeable() || (result.flags() & layout) != layout)
                    raise(PyExc_ValueError, "solve: out must be a writeable " +
                                                std::string(vector ? "C" : "Fortran") +
                                                "-contiguous array of shape " + shapeString(b) +
                                                ", got shape " + shapeString(result));
            }
            const Strided from = stridedOf(b);  // no Python object is touched without the GIL
            T* const to = static_cast<T*>(result.mutable_data());
            const std::size_t count = static_cast<std::size_t>(n) * static_cast<std::size_t>(k);
            const bool direct = out.is_none();
            if (k == 0) return result;
            PivotLocation pivot;
            bool reanalyzed = false, finite = true;
            const Status st = withoutGil([&]() {
                if (generation_ != generation) {
                    reanalyzed = true;
                    return Status();
                }
                T* x = to;
                if (!direct) {
                    std::vector<T>& s = scratch(T());
                    if (s.size() < count) s.resize(count);
                    x = s.data();
                }
                copyColumns<T>(from, x);
                if (checkValues && !(finite = allFinite(x, count))) return Status();
                Status r = vector ? solver.solve(x) : solver.solve(x, x, static_cast<unsigned int>(k), n);
                if (!r.ok())
                    pivot = solver.badPivot();
                else if (!direct)
                    std::memcpy(to, x, count * sizeof(T));
                return r;
            });
            if (reanalyzed)
                raise(PyExc_RuntimeError, "solve: another thread analysed the solver again during this call");
            if (!finite) raise(PyExc_ValueError, "solve: the right-hand side holds a NaN or infinite value");
            check(st, &pivot);
            return result;
        });
    }

    // ---- sizes and report ----

    unsigned long size() {
        return locked([](auto& s) { return s.size(); });
    }
    unsigned int numBodies() {
        return locked([](auto& s) { return s.numBodies(); });
    }
    unsigned int numConstraints() {
        return locked([](auto& s) { return s.numConstraints(); });
    }
    unsigned long bodyOffset(long long body) {
        return locked([&](auto& s) {
            if (body < 0 || body >= static_cast<long long>(s.numBodies()))
                fail(PyExc_ValueError, "body_offset: unknown body " + std::to_string(body) + " (" +
                                           std::to_string(s.numBodies()) + " bodies)");
            return s.bodyOffset(static_cast<unsigned int>(body));
        });
    }
    unsigned long constraintOffset(long long constraint) {
        return locked([&](auto& s) {
            if (constraint < 0 || constraint >= static_cast<long long>(s.numConstraints()))
                fail(PyExc_ValueError, "constraint_offset: unknown constraint " + std::to_string(constraint) +
                                           " (" + std::to_string(s.numConstraints()) + " constraints)");
            return s.constraintOffset(static_cast<unsigned int>(constraint));
        });
    }
    py::dict report() {
        return reportDict(locked([](auto& s) { return s.report(); }));
    }
    py::object badPivot() {
        return pivotDict(locked([](auto& s) { return s.badPivot(); }));
    }
    unsigned long valueCount(int kind) {
        return locked([&](auto& s) {
            switch (kind) {
                case 0:
                    return s.bodyValueCount();
                case 1:
                    return s.jacobianValueCount();
                case 2:
                    return s.couplingValueCount();
                default:
                    return s.complianceValueCount();
            }
        });
    }

    // The benchmark's baseline: `steps` steps of setValues, factor, solve driven from C++ on this very object
    // with the arrays' own storage (no Python between the calls). Returns the seconds of each step, of the
    // wall clock or (threadClock) of the calling thread's processor time.
    std::vector<double> nativeSteps(const py::handle& bodies, const py::handle& jacobians,
                                    const py::handle& rhs, long long steps, bool threadClock) {
        const unsigned int count = toUnsigned(steps, "steps");
        return visit([&](auto& solver) {
            using T = ScalarOf<decltype(solver)>;
            unsigned long counts[3];
            std::uint64_t generation;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                counts[0] = solver.bodyValueCount();
                counts[1] = solver.jacobianValueCount();
                counts[2] = solver.size();
                generation = generation_;
            }
            auto mb = flatValues<T>(bodies, counts[0], "bodies");
            auto mj = flatValues<T>(jacobians, counts[1], "jacobians");
            auto b = flatValues<T>(rhs, counts[2], "rhs");
            const T *bodyValues = mb.data(), *jacobianValues = mj.data(), *rhsValues = b.data();
            std::vector<T> x(counts[2]);
            std::vector<double> seconds(count);
            Status st;
            withoutGil([&]() {
                if (generation_ != generation) {
                    st = Status{StatusCode::invalidArgument, "_native_steps: the solver was analysed again"};
                    return 0;
                }
                for (unsigned int k = 0; k < count && st.ok(); ++k) {
                    const double t0 = now(threadClock);
                    st = solver.setValues(bodyValues, jacobianValues);
                    if (st.ok()) st = solver.factor();
                    if (st.ok()) st = solver.solve(rhsValues, x.data());
                    seconds[k] = now(threadClock) - t0;
                }
                return 0;
            });
            check(st);
            return seconds;
        });
    }

    static double now(bool threadClock) {
        timespec t{};
        clock_gettime(threadClock ? CLOCK_THREAD_CPUTIME_ID : CLOCK_MONOTONIC, &t);
        return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
    }

private:
    // The value counts of the four arrays of set_values (the caller holds the mutex).
    template <typename S>
    static std::array<unsigned long, 4> valueCounts(const S& solver) {
        return {solver.bodyValueCount(), solver.jacobianValueCount(), solver.couplingValueCount(),
                solver.complianceValueCount()};
    }
    // The arrays of set_values (and of the one-call factor) as C-ordered arrays of the solver's dtype with
    // the given counts, None as a null pointer; TypeError or ValueError naming the array otherwise. The
    // caller holds the GIL; the arrays stay alive with this object.
    template <typename T>
    struct ValueArrays {
        ValueArrays(const std::array<unsigned long, 4>& counts, std::initializer_list<py::handle> given) {
            const char* names[4] = {"set_values: bodies", "set_values: jacobians", "set_values: couplings",
                                    "set_values: compliances"};
            int k = 0;
            for (const py::handle& h : given) {
                if (!h.is_none()) {
                    arrays[k] = flatValues<T>(h, counts[k], names[k]);
                    pointers[k] = arrays[k].data();
                }
                ++k;
            }
        }
        py::array_t<T, py::array::c_style> arrays[4];
        const T* pointers[4] = {nullptr, nullptr, nullptr, nullptr};
    };

    // The wrapper's record of the structure, for the shape checks (the caller holds the mutex; errors are
    // thrown by fail()).
    void requireSizes(const char* what) {
        if (blockSizes_.empty() && visit([](auto& s) { return s.isAnalyzed(); }))
            fail(PyExc_ValueError,
                 std::string(what) +
                     ": the blocks of this matrix were detected by the analysis; set "
                     "values with set_scalar_values, or give block_sizes to analyze_matrix");
    }
    unsigned int bodySize(long long body, const char* what) {
        requireSizes(what);
        if (body < 0 || body >= static_cast<long long>(numBodies_))
            fail(PyExc_ValueError, std::string(what) + ": unknown body " + std::to_string(body) + " (" +
                                       std::to_string(numBodies_) + " bodies)");
        return blockSizes_[static_cast<std::size_t>(body)];
    }
    unsigned int constraintSize(long long constraint, const char* what) {
        requireSizes(what);
        const long long count = static_cast<long long>(blockSizes_.size()) - numBodies_;
        if (constraint < 0 || constraint >= count)
            fail(PyExc_ValueError, std::string(what) + ": unknown constraint " + std::to_string(constraint) +
                                       " (" + std::to_string(count) + " constraints)");
        return blockSizes_[numBodies_ + static_cast<std::size_t>(constraint)];
    }
    unsigned int blockSize(long long block, const char* what) {
        requireSizes(what);
        if (block < 0 || block >= static_cast<long long>(blockSizes_.size()))
            fail(PyExc_ValueError, std::string(what) + ": unknown block " + std::to_string(block) + " (" +
                                       std::to_string(blockSizes_.size()) + " blocks)");
        return blockSizes_[static_cast<std::size_t>(block)];
    }

    std::unique_ptr<Solver<float>> float_;
    std::unique_ptr<Solver<double>> double_;
    std::mutex mutex_;
    // Block sizes (bodies first) and the number of bodies among them, empty when the analysis detected the
    // blocks itself; the number of values of an analysed scalar matrix; analyses so far.
    std::vector<unsigned int> blockSizes_;
    unsigned int numBodies_ = 0;
    // Work space of solves into a caller's array.
    std::vector<float> scratchFloat_;
    std::vector<double> scratchDouble_;
    std::vector<float>& scratch(float) { return scratchFloat_; }
    std::vector<double>& scratch(double) { return scratchDouble_; }
    unsigned long scalarValues_ = 0;
    std::uint64_t generation_ = 0;
};

}  // namespace
}  // namespace kivTamber

PYBIND11_MODULE(_kivtamber, m) {
    using namespace kivTamber;
    m.doc() = "The solver object of libkivTamber for NumPy arrays (use the package kivtamber).";

    static py::exception<FactorizationErrorTag> factorizationErrorType(m, "FactorizationError",
                                                                       PyExc_RuntimeError);
    factorizationError = factorizationErrorType.ptr();
    // Every Deferred is caught and raised where its mutex is released; one that escaped would still become
    // its Python exception here, after the unwinding released every lock.
    py::register_exception_translator([](std::exception_ptr p) {
        try {
            if (p) std::rethrow_exception(p);
        } catch (const Deferred& e) {
            PyErr_SetString(e.type, e.message.c_str());
        }
    });
    factorizationErrorType.doc() =
        "The factorization met a zero or non-finite pivot, or switching equations in place failed. "
        "Attributes: pivot (dict naming the pivot, or None), code (the library's status name).";

    py::class_<SystemStructure>(
        m, "Structure",
        "The structure of a body/constraint system: bodies, constraints (each with its "
        "rows), the Jacobian blocks J(c, b) coupling them and body-body couplings. A "
        "plain recorder: Solver.analyze checks it and names the first offending id.")
        .def(py::init<>())
        .def(
            "add_body",
            [](SystemStructure& s, long long size) { return s.addBody(toUnsigned(size, "body size")); },
            py::arg("size"), "Adds a body with `size` unknowns; returns its id (0, 1, ...).")
        .def(
            "add_constraint",
            [](SystemStructure& s, long long rows, bool compliant) {
                return s.addConstraint(toUnsigned(rows, "constraint rows"), compliant);
            },
            py::arg("rows"), py::arg("compliant") = false,
            "Adds a constraint with `rows` equations; returns its id. compliant: it has a compliance block "
            "C(c, c) (a soft constraint), otherwise its diagonal block is zero.")
        .def(
            "add_jacobian",
            [](SystemStructure& s, long long constraint, long long body) {
                s.addJacobian(toUnsigned(constraint, "constraint"), toUnsigned(body, "body"));
            },
            py::arg("constraint"), py::arg("body"), "Records the Jacobian block J(constraint, body).")
        .def(
            "add_body_coupling",
            [](SystemStructure& s, long long body1, long long body2) {
                s.addBodyCoupling(toUnsigned(body1, "body"), toUnsigned(body2, "body"));
            },
            py::arg("body1"), py::arg("body2"), "Records a body-body coupling K(body1, body2).")
        .def_property_readonly("num_bodies", &SystemStructure::numBodies)
        .def_property_readonly("num_constraints", &SystemStructure::numConstraints)
        .def_property_readonly("body_sizes", [](const SystemStructure& s) { return s.bodySizes; })
        .def_property_readonly("constraint_sizes", [](const SystemStructure& s) { return s.constraintSizes; })
        .def_property_readonly("compliant",
                               [](const SystemStructure& s) {
                                   std::vector<bool> c(s.compliant.begin(), s.compliant.end());
                                   return c;
                               })
        .def_property_readonly("jacobians", [](const SystemStructure& s) { return s.jacobians; })
        .def_property_readonly("couplings", [](const SystemStructure& s) { return s.couplings; })
        .def("__repr__", [](const SystemStructure& s) {
            return "Structure(bodies=" + std::to_string(s.numBodies()) +
                   ", constraints=" + std::to_string(s.numConstraints()) +
                   ", jacobians=" + std::to_string(s.jacobians.size()) +
                   ", couplings=" + std::to_string(s.couplings.size()) + ")";
        });

    py::class_<PySolver>(m, "Solver")
        .def(py::init<const py::object&, const py::kwargs&>(), py::arg("dtype") = py::dtype::of<double>())
        .def_property_readonly("dtype", &PySolver::dtype)
        .def("set_options", &PySolver::setOptions)
        .def_property_readonly("options", &PySolver::options)
        .def("analyze", &PySolver::analyze, py::arg("structure"))
        .def("_analyze_csc", &PySolver::analyzeCsc, py::arg("n"), py::arg("first_constraint_row"),
             py::arg("col_pointers"), py::arg("row_indices"), py::arg("block_sizes") = py::none())
        .def_property_readonly("is_analyzed", &PySolver::isAnalyzed)
        .def("set_body", &PySolver::setBody, py::arg("body"), py::arg("values"))
        .def("set_jacobian", &PySolver::setJacobian, py::arg("constraint"), py::arg("body"),
             py::arg("values"))
        .def("set_body_coupling", &PySolver::setBodyCoupling, py::arg("body1"), py::arg("body2"),
             py::arg("values"))
        .def("set_compliance", &PySolver::setCompliance, py::arg("constraint"), py::arg("values"))
        .def("set_block", &PySolver::setBlock, py::arg("i"), py::arg("j"), py::arg("values"))
        .def("set_values", &PySolver::setValues, py::arg("bodies") = py::none(),
             py::arg("jacobians") = py::none(), py::arg("couplings") = py::none(),
             py::arg("compliances") = py::none())
        .def("set_scalar_values", &PySolver::setScalarValues, py::arg("values"))
        .def_property_readonly("body_value_count", [](PySolver& s) { return s.valueCount(0); })
        .def_property_readonly("jacobian_value_count", [](PySolver& s) { return s.valueCount(1); })
        .def_property_readonly("coupling_value_count", [](PySolver& s) { return s.valueCount(2); })
        .def_property_readonly("compliance_value_count", [](PySolver& s) { return s.valueCount(3); })
        .def("set_active", &PySolver::setActive, py::arg("constraint"), py::arg("row"), py::arg("on"))
        .def("set_constraint_active", &PySolver::setConstraintActive, py::arg("constraint"), py::arg("on"))
        .def("is_active", &PySolver::isActive, py::arg("constraint"), py::arg("row"))
        .def("factor", &PySolver::factor, py::arg("bodies") = py::none(), py::arg("jacobians") = py::none(),
             py::arg("couplings") = py::none(), py::arg("compliances") = py::none(),
             "factor(): factors the values held. factor(bodies=..., jacobians=..., couplings=..., "
             "compliances=...): one step in one call, the same as set_values(...) followed by factor() "
             "(the same checks and messages, the same results bit for bit; an array left None keeps "
             "those values), with each block column's values written just before the serial "
             "factorization reads them.")
        .def("solve", &PySolver::solve, py::arg("b"), py::arg("out") = py::none())
        .def_property_readonly("size", &PySolver::size)
        .def_property_readonly("num_bodies", &PySolver::numBodies)
        .def_property_readonly("num_constraints", &PySolver::numConstraints)
        .def("body_offset", &PySolver::bodyOffset, py::arg("body"))
        .def("constraint_offset", &PySolver::constraintOffset, py::arg("constraint"))
        .def("report", &PySolver::report)
        .def("bad_pivot", &PySolver::badPivot)
        .def("_native_steps", &PySolver::nativeSteps, py::arg("bodies"), py::arg("jacobians"), py::arg("rhs"),
             py::arg("steps"), py::arg("thread_clock") = false);

    m.def("_symmetric_residual", &symmetricResidual, py::arg("col_pointers"), py::arg("row_indices"),
          py::arg("values"), py::arg("b"), py::arg("x"));
    m.def("_lower_triangle", &lowerTriangleOf, py::arg("col_pointers"), py::arg("row_indices"),
          py::arg("values"), py::arg("tolerance"));
}
