// Error checks of the runtime's thread synchronisation.
//
// Lock, unlock, condition wait and condition signal report failure through a non-zero return code (the
// POSIX error number). Every failure is fatal: the checks below end the process with
//     "[ThreadSync.h:<line>] kivAbort: <text>"
// on standard error (kiv::abortAt). Each failure has a fixed line number that identifies it in crash reports
// independently of how this file is laid out, so the numbers are written out rather than taken from
// __LINE__:
//
//     call                      result          text                                                   line
//     mutex lock                EDEADLK (35)    "Deadlock detected!"                                    271
//     mutex lock                EINVAL (22)     "Mutex memory is corrupted!"                            274
//     mutex lock                other non-zero  "Unknown mutex error!"                                  283
//     mutex unlock              EPERM (1)       "Trying to unlock mutex which the current thread
//                                                does not own!"                                         310
//     mutex unlock              EINVAL (22)     "Mutex memory is corrupted!"                            313
//     mutex unlock              other non-zero  "Unknown mutex error!"                                  322
//     condition wait or signal  EINVAL (22)     "Condition memory is corrupted!"                        650
//     condition wait or signal  other non-zero  "Unknown condition error!"                              659
//
// Usage: kiv::checkMutexLock(mutex.lock()); ... kiv::checkMutexUnlock(mutex.unlock());
// The checks are header-only and do not depend on a particular thread library.
#pragma once

#include <kiv/Abort.h>

#include <cerrno>

namespace kiv {

// The reported file name and the line numbers of the table above.
namespace threadSync {
constexpr const char* fileName = "ThreadSync.h";
constexpr unsigned lockDeadlockLine = 271;
constexpr unsigned lockCorruptedLine = 274;
constexpr unsigned lockUnknownLine = 283;
constexpr unsigned unlockNotOwnerLine = 310;
constexpr unsigned unlockCorruptedLine = 313;
constexpr unsigned unlockUnknownLine = 322;
constexpr unsigned conditionCorruptedLine = 650;
constexpr unsigned conditionUnknownLine = 659;
}  // namespace threadSync

static_assert(EPERM == 1 && EINVAL == 22 && EDEADLK == 35, "the POSIX error numbers of Linux are assumed");

// Aborts unless `result`, the return code of a mutex lock, is 0.
inline void checkMutexLock(int result) noexcept {
    if (result == 0) return;
    if (result == EDEADLK) abortAt(threadSync::fileName, threadSync::lockDeadlockLine, "Deadlock detected!");
    if (result == EINVAL) {
        abortAt(threadSync::fileName, threadSync::lockCorruptedLine, "Mutex memory is corrupted!");
    }
    abortAt(threadSync::fileName, threadSync::lockUnknownLine, "Unknown mutex error!");
}

// Aborts unless `result`, the return code of a mutex unlock, is 0.
inline void checkMutexUnlock(int result) noexcept {
    if (result == 0) return;
    if (result == EPERM) {
        abortAt(threadSync::fileName, threadSync::unlockNotOwnerLine,
                "Trying to unlock mutex which the current thread does not own!");
    }
    if (result == EINVAL) {
        abortAt(threadSync::fileName, threadSync::unlockCorruptedLine, "Mutex memory is corrupted!");
    }
    abortAt(threadSync::fileName, threadSync::unlockUnknownLine, "Unknown mutex error!");
}

// Aborts unless `result`, the return code of a condition wait or signal, is 0.
inline void checkCondition(int result) noexcept {
    if (result == 0) return;
    if (result == EINVAL) {
        abortAt(threadSync::fileName, threadSync::conditionCorruptedLine, "Condition memory is corrupted!");
    }
    abortAt(threadSync::fileName, threadSync::conditionUnknownLine, "Unknown condition error!");
}

}  // namespace kiv
