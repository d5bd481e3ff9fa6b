// The slots of the scratch pad (ScratchPad, TamberUtils.h) used across the library, in one list. A slot is
// a number naming one reusable array per element type (int, unsigned char, float, double); two users of the
// same slot and type share the array, so they must never be live at the same time. The users and their
// lifetimes:
//  - int 0, 1: Reordering::computeSymamdPermutation (its input to symamd), Reordering::zeroLeafSwap (int 0,
//    counts), Analysis::computeFilledSkeleton (int 0: stamps, counts and column pointers; int 1: the columns
//    of L); each only for the length of its call, and the analysis calls them one after the other;
//  - int 0 .. threads − 1, unsigned char 0 .. threads − 1: the multifrontal factorization's per-thread
//    stacks and marks, for the length of a factorization (never during an analysis of the same data);
//  - unsigned char 0: the unit solves' marks (TamberSolve);
//  - float / double 0: the serial factorization's work column (Tamber.cpp);
//  - the numbered slots below, each owned by one routine.
// Slots from 0x100000 up are named; the low numbers stay free for per-thread and per-call arrays.
#ifndef KIVTAMBER_SCRATCHSLOTS_H
#define KIVTAMBER_SCRATCHSLOTS_H

namespace kivTamber {
namespace ScratchSlots {

// Per-call work of the symbolic routines and orderings (int slots; see the list above).
constexpr unsigned long symbolicWork = 0;     // computeFilledSkeleton: stamp, count, colPtr, cursor
constexpr unsigned long symbolicColumns = 1;  // computeFilledSkeleton: the columns of L
constexpr unsigned long symamdPointers = 0;   // computeSymamdPermutation: column pointers
constexpr unsigned long symamdIndices = 1;    // computeSymamdPermutation: row indices
constexpr unsigned long zeroLeafCounts = 0;   // zeroLeafSwap: per-block counts

// Named slots of the factorizations and solves (their owners use these values; TamberSolve.h, Tamber.cpp and
// Multifront.cpp hold the same numbers today).
constexpr unsigned long unitSolvePath = 0x100000;       // int: the unit solves' path (TamberSolve)
constexpr unsigned long refinementResidual = 0x100001;  // double: iterative refinement's residual
constexpr unsigned long refinementEntry = 0x100002;     // double: iterative refinement's entry solution
constexpr unsigned long serialMap = 0x100010;           // int: the serial factorization's block map
constexpr unsigned long serialScaledRow = 0x100011;     // float/double: its row of L·D when LD is not kept
constexpr unsigned long reciprocalBase = 0x100100;  // float/double + thread: multifrontal reciprocal pivots

}  // namespace ScratchSlots
}  // namespace kivTamber

#endif  // KIVTAMBER_SCRATCHSLOTS_H
