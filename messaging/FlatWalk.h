// FlatWalk.h: walking a flattened message block record by record, to check
// it (reporting where and why it is malformed) or to swap its byte order.
//
// The checks are those of the bounded ZvMessage::Unflatten, in the same
// order, so that a block the walk accepts at the top level is one the
// bounded reader accepts, and the first problem the walk names is the one
// that made the reader refuse. The walk can also check nested messages,
// which the reader leaves to FindMessage, and insist that the block end
// exactly at the given size.
//
// Used by the library (the byte-order forms of Flatten and Unflatten, the
// detection function) and compiled into the zvmsg tool as well.
#ifndef ZVKIT_INTERNAL_FLAT_WALK_H
#define ZVKIT_INTERNAL_FLAT_WALK_H

#include <SupportDefs.h>

#include <stddef.h>

namespace zvkit::internal {

// Nested messages deeper than this are refused by every walk that enters
// them, so that a hostile block cannot exhaust the stack.
constexpr int kMaxFlatNesting = 64;

// Where and why a walk stopped.
struct FlatProblem
{
	size_t offset = 0; // from the start of the outermost block
	char reason[160] = {};
};

struct FlatWalk
{
	// The block's numbers are in the other order than the host's.
	bool swapped = false;
	// Swap every number in place into the other order (the block must be
	// writable); nested messages are always walked then.
	bool convert = false;
	// Walk into nested messages ("BMSG" values) and check them too.
	bool nested = false;
	// The outermost block must end exactly at size.
	bool exact = false;
};

// Walks the block of at most size bytes as how says. Returns true and the
// block's length in *length (when given), or false with *problem (when
// given) filled. A converting walk that fails leaves the block partly
// swapped.
bool WalkFlatBlock(uint8* block, size_t size, const FlatWalk& how, size_t* length,
                   FlatProblem* problem);
// The same for a block that is only read; how.convert must be false.
bool CheckFlatBlock(const uint8* block, size_t size, const FlatWalk& how, size_t* length,
                    FlatProblem* problem);

// Swaps one value of type, size bytes at data, into the other byte order.
// swapped tells which order a nested message's block is in now. Fails only
// for a nested message that is malformed or nested too deep.
bool SwapFlatValue(type_code type, uint8* data, size_t size, bool swapped, FlatProblem* problem);

// The width of the numbers a value of type is made of (2, 4 or 8), 0 for a
// value of bytes (and for nested messages, which are walked instead).
size_t FlatElementWidth(type_code type, size_t size);

} // namespace zvkit::internal

#endif // ZVKIT_INTERNAL_FLAT_WALK_H
