// The number of operator new calls of the test program so far, for tests that show a steady state
// allocates nothing outside the library's own byte allocator. Linking a test that calls newCount() replaces
// operator new and delete of that program with counting ones (malloc and free underneath, so that the
// sanitizers see matching pairs).
#ifndef KIVTAMBER_TESTING_COUNTEDNEW_H
#define KIVTAMBER_TESTING_COUNTEDNEW_H

namespace kivTamber {
namespace testing {

unsigned long newCount();

}  // namespace testing
}  // namespace kivTamber

#endif  // KIVTAMBER_TESTING_COUNTEDNEW_H
