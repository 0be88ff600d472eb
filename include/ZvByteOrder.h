// ZvByteOrder.h: the byte order of a flattened message.
//
// A flattened ZvMessage is written in the byte order of the machine that
// flattens it, and the block carries no mark of that order. The forms of
// ZvMessage::Flatten and of the bounded ZvMessage::Unflatten that take a
// zv_byte_order write and read either order; the forms without one keep
// using the host's order, byte for byte as before.
//
// Swapping a block between the orders changes only multi-byte numbers: the
// header words, each record's type code and size, and each value as its type
// requires (16-, 32- and 64-bit integers, floats and doubles, the doubles of
// rectangles and points, pointers of 4 or 8 bytes). Booleans, 8-bit
// integers, colours, strings, caller-defined types and raw data are bytes and
// stay as they are; nested messages are swapped recursively.
//
// ZV_DetectByteOrder tells which order a block reads in. Since the format has
// no magic number a block can read validly both ways: in practice only an
// empty message (a header with an item count of 0) does. Such a block is
// ZV_ORDER_AMBIGUOUS, and the bounded Unflatten without an order then reads
// it, like every block, in the host's order.
//
// Thread safety: ZV_DetectByteOrder and ZV_HostByteOrder are reentrant.
#ifndef _ZV_BYTE_ORDER_H
#define _ZV_BYTE_ORDER_H

#include <SupportDefs.h>

#include <ZvExport.h>

#include <stddef.h>

// The order in which a flattened block stores its multi-byte numbers.
enum zv_byte_order
{
	ZV_LITTLE_ENDIAN = 0, // least significant byte first (x86, ARM as run by Linux)
	ZV_BIG_ENDIAN = 1,    // most significant byte first (PowerPC, network order)
	ZV_HOST_ENDIAN = 2    // the order of the machine running the code
};

// What ZV_DetectByteOrder found.
enum zv_order_detection
{
	ZV_ORDER_LITTLE = 0,    // the block reads validly only as little-endian
	ZV_ORDER_BIG = 1,       // the block reads validly only as big-endian
	ZV_ORDER_AMBIGUOUS = 2, // the block reads validly both ways
	ZV_ORDER_NEITHER = 3    // the block is malformed in both orders
};

// ZV_LITTLE_ENDIAN or ZV_BIG_ENDIAN: the order ZV_HOST_ENDIAN stands for.
ZV_EXPORT zv_byte_order ZV_HostByteOrder();

// Tries the size bytes at block as one flattened message in each order: a
// block reads validly in an order when the bounded reader accepts it, every
// nested message reads validly in the same order, and the block ends exactly
// at size (a stored or transmitted block is all of its bytes). Returns B_OK
// with *result set, or B_BAD_VALUE when block or result is null.
ZV_EXPORT status_t ZV_DetectByteOrder(const void* block, size_t size, zv_order_detection* result);

#endif // _ZV_BYTE_ORDER_H
