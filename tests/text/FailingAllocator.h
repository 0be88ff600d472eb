// FailingAllocator.h: makes the n-th array allocation of the process fail.
//
// The text tests replace the global array new and delete (FailingAllocator.
// cpp) so that a test can make an allocation inside the library throw
// std::bad_alloc (or, for the non-throwing form, give null) and check that
// the object stays usable and nothing leaks. Off by default.
#ifndef ZVKIT_TESTS_FAILING_ALLOCATOR_H
#define ZVKIT_TESTS_FAILING_ALLOCATOR_H

namespace failing {

// The next `count` array allocations succeed, the one after fails, and the
// following ones succeed again. A negative count turns failing off.
void FailAfter(long count);

// Whether the armed failure has happened.
bool Failed();

// Turns failing off when it goes out of scope.
struct Disarm
{
	~Disarm() { FailAfter(-1); }
};

} // namespace failing

#endif // ZVKIT_TESTS_FAILING_ALLOCATOR_H
