// ZvMessage.h: the library's message: a command code, a flags word and an
// ordered list of named, typed fields.
//
// Each field is one ZvMessageItem holding a single value as an owned byte
// block. Several items may share a name, even with different types; the
// n-th item of a name (and type) is reached by an index that counts the
// matches in order of addition. ZV_ANY_TYPE matches every type in searches.
// Names are cut to 63 characters; an item made without a name is called
// "@@@Unnamed".
//
// A message flattens to one contiguous block in host byte order: a 12-byte
// header (what, flags, item count) followed by one record per item (type
// code, name and terminator, data size, data bytes). Nested messages ("BMSG")
// are stored flattened, so they are deep copies taken at the time of the Add.
// The forms of Flatten and of the bounded Unflatten that take a zv_byte_order
// write and read the block in either order (ZvByteOrder.h).
//
// Two rules of the item store are deliberate and relied on:
//  - an item's stored size never shrinks: replacing a value with a shorter
//    one keeps the old size, and the item's ReplaceData copies the stored
//    size from its source (the generic ReplaceData of the message passes the
//    caller's buffer straight through, so that buffer must hold the larger of
//    the two sizes; the typed Replace members pad their own value with zeros);
//  - the copy constructors do not copy the flags (they start at 0), while
//    assignment keeps the target's own flags.
//
// Allocation: messages and items come from per-thread caches of small
// blocks, so that a message built on one thread and deleted on another (a
// posted message) costs no allocator lock. Values of up to
// ZvMessageItem::kInlineDataSize bytes are kept inside the item itself, in
// the part of its name buffer that the name leaves unused (see
// ZvMessageItem): an item is no larger than its four fields.
//
// Lookups by name: a message of many items (24 and more) keeps an index from
// names to its items, made by the first lookup, so that finding the n-th
// value of a name costs the same however many fields and values there are.
// The index follows every change made through the message; an item's name
// and type must therefore not be changed through the pointers handed out.
//
// Ownership: a message owns its items and each item its data block. Pointers
// handed out by FindData, _FindData, GetInfo and FindString point into an
// item and stay valid until that item is replaced with a larger value,
// removed, or the message is emptied or destroyed. Pointer fields store the
// address value only; the memory it points to is never owned.
// Thread safety: none. A message is used by one thread at a time; the looper
// framework hands messages between threads through its locked queue.
#ifndef _ZV_MESSAGE_H
#define _ZV_MESSAGE_H

#include <SupportDefs.h>

#include <ZvByteOrder.h>
#include <ZvColor.h>
#include <ZvExport.h>
#include <ZvGeometry.h>
#include <ZvList.h>
#include <ZvTypeCodes.h>

#include <stddef.h>

#include <atomic>
#include <new>

namespace zvkit::internal {
class ReplySlot;
class NameIndex;
struct MessageParts;
} // namespace zvkit::internal

// One field of a ZvMessage: a name, a type code and an owned value block.
//
// A small value lives inside the item, in the second half of the name
// buffer: name[32] to name[63] when the name has at most 31 characters, and
// what a longer name leaves free past its terminator (from the next 8-byte
// boundary) otherwise. data then points into name. Write a name only
// through the item's own members (the constructors and SetData): a name
// written into the buffer by hand, or a buffer filled up with zeros, can
// overwrite the value.
class ZV_EXPORT ZvMessageItem
{
public:
	// Values of up to this many bytes live inside the item when the name
	// leaves room for them (always for names of up to 31 characters): data
	// then points into the item itself. data is the item's own; never free
	// it or hand it to another item.
	static constexpr int32 kInlineDataSize = 32;

	// type 0, size 0, no data, name "@@@Unnamed".
	ZvMessageItem();
	// Copies name (cut to 63 characters; null gives "@@@Unnamed") and, when
	// size >= 1, size bytes from data (zeros when data is null).
	ZvMessageItem(const char* name, type_code type, int32 size, const void* data);
	// A deep copy of other: type, size, name and a fresh data block.
	explicit ZvMessageItem(const ZvMessageItem* other);
	~ZvMessageItem();

	//@{
	// Single objects (of derived classes too) come from the library's
	// per-thread block cache, so that an object made on one thread and
	// deleted on another, as every posted message is, costs no allocator
	// lock. Arrays use the global operator new[].
	static void* operator new(size_t size);
	static void* operator new(size_t size, const std::nothrow_t&) noexcept;
	static void* operator new(size_t, void* where) noexcept { return where; }
	static void operator delete(void* block, size_t size);
	static void operator delete(void* block, const std::nothrow_t&) noexcept;
	static void operator delete(void*, void*) noexcept {}
	//@}

	ZvMessageItem(const ZvMessageItem&) = delete;
	ZvMessageItem& operator=(const ZvMessageItem&) = delete;

	// Bytes of the flattened record: 8 + name length + 1 + size.
	int32 Size() const;

	// Writes the flattened record at buffer (which must hold Size() bytes);
	// returns the bytes written.
	int32 GetData(void* buffer) const;
	// Reads one flattened record into this item, replacing its content;
	// returns the bytes consumed. The record is trusted as it stands.
	int32 SetData(const void* buffer);
	// Reads one record from at most available bytes, checking the name's
	// terminator and the data size against them. Returns the bytes consumed,
	// or 0 (item left as it was) when the record is malformed or truncated.
	int32 SetData(const void* buffer, size_t available);

	// When size is larger than the stored size, the block is reallocated at
	// the new size; then the stored size of bytes is copied from data.
	void ReplaceData(int32 size, const void* data);

	// Dumps the item on standard output.
	void PrintToStream() const;

	type_code type; // The field's type code.
	int32 size;     // Bytes in data; never shrinks on replacement.
	uint8* data;    // The value block, owned by the item (may be inline).
	char name[64];  // The field's name, zero-terminated, at most 63 characters.

private:
	friend class ZvMessage;

	// The bounded SetData for a record whose numbers are in host order or,
	// when swapped, in the other order (the value is then swapped as its
	// type requires; 0 is returned for a nested message that cannot be).
	int32 _SetRecord(const void* buffer, size_t available, bool swapped);
	// Takes the record's name (nameSize bytes with the terminator) and a
	// copy of length bytes from source as the item's value.
	void _AdoptRecord(const void* recordName, size_t nameSize, const uint8* source, int32 length);
	// The value's place in the name buffer for a value of length bytes and
	// a name of nameLength characters; null when it does not fit there.
	uint8* _InsideSpot(int32 length, size_t nameLength);
	// A block for a value of length bytes, given the name's length: the
	// free part of the name buffer when the value fits there, else the heap.
	uint8* _NewBlock(int32 length, size_t nameLength);
	// Frees data unless it lies in the name buffer, and clears it.
	void _FreeBlock();
	// Whether data points into the name buffer.
	bool _ValueInside() const;
};

// A command code (what), a flags word and an ordered list of named, typed
// fields; see the file's description.
class ZV_EXPORT ZvMessage
{
public:
	// An empty message with this what and flags 0.
	explicit ZvMessage(uint32 what);
	// The same for a plain int (a literal 0 or a four-character literal such
	// as 'QUIT'), which would otherwise be ambiguous with the pointer forms.
	explicit ZvMessage(int what);
	// Copies what and deep copies of the items; flags start at 0.
	ZvMessage(const ZvMessage& other);
	// A null other gives an empty message with what 0.
	explicit ZvMessage(const ZvMessage* other);
	// An empty message, then Unflatten(flat).
	explicit ZvMessage(const void* flat);
	// An empty message, then the bounded Unflatten(flat, size): a malformed
	// block leaves the message with what 0, flags 0 and no items.
	ZvMessage(const void* flat, size_t size);
	// Deletes the items and their blocks.
	virtual ~ZvMessage();

	//@{
	// Single objects (of derived classes too) come from the library's
	// per-thread block cache, so that an object made on one thread and
	// deleted on another, as every posted message is, costs no allocator
	// lock. Arrays use the global operator new[].
	static void* operator new(size_t size);
	static void* operator new(size_t size, const std::nothrow_t&) noexcept;
	static void* operator new(size_t, void* where) noexcept { return where; }
	static void operator delete(void* block, size_t size);
	static void operator delete(void* block, const std::nothrow_t&) noexcept;
	static void operator delete(void*, void*) noexcept {}
	//@}

	// Empties this message, takes other's what and deep copies of its items;
	// flags keep their value. Assigning a message to itself empties it.
	ZvMessage& operator=(const ZvMessage& other);
	// As operator= on *other; a null other changes nothing.
	void Set(const ZvMessage* other);
	// Stores the flags word (kept by assignment, not by the copy forms).
	void SetFlags(uint32 flags);

	// Deletes every item; what and flags are kept.
	void MakeEmpty();
	// Whether the message holds no item.
	bool IsEmpty() const;

	// Distinct names among the items of type (ZV_ANY_TYPE: of all items).
	int32 CountNames(type_code type) const;
	// The index-th item of type (ZV_ANY_TYPE: the index-th item). *count gets
	// the number of items of that type (ZV_ANY_TYPE: of all items).
	bool GetInfo(type_code type, int32 index, char** name, type_code* foundType,
	             int32* count) const;
	// The type of the first item called name and the number of such items.
	bool GetInfo(const char* name, type_code* type, int32* count) const;

	// Deletes every item called name, whatever its type.
	bool RemoveName(const char* name);
	// Deletes the index-th item called name, counting items of every type.
	bool RemoveData(const char* name, int32 index);

	// A copy of this message with copies of other's items appended. Merging
	// appends: an item whose name exists becomes a further index. operator+=
	// runs until it has appended as many items as the right-hand message
	// holds, counted as it goes: adding a message to itself never ends.
	ZvMessage operator+(const ZvMessage& other) const;
	// Appends copies of other's items to this message.
	ZvMessage& operator+=(const ZvMessage& other);
	// A copy of this message without the items called name.
	ZvMessage operator-(const char* name) const;
	// Deletes the items called name, as RemoveName.
	ZvMessage& operator-=(const char* name);

	// Generic data operations. AddData refuses ZV_ANY_TYPE and null data;
	// _AddData refuses only null data. FindData hands back the item's own
	// block. ReplaceData reads max(size, stored size) bytes from data.
	bool AddData(const char* name, type_code type, const void* data, int32 size);
	// Hands back the index-th item of name and type (ZV_ANY_TYPE: of any
	// type; index 0 without one): *data points to its block, *size gets its
	// size when size is given. False when absent or data is null.
	bool FindData(const char* name, type_code type, int32 index, const void** data,
	              int32* size) const;
	bool FindData(const char* name, type_code type, const void** data, int32* size) const;
	// Replaces the index-th value of name and type (index 0 without one);
	// false when absent or data is null.
	bool ReplaceData(const char* name, type_code type, int32 index, const void* data, int32 size);
	bool ReplaceData(const char* name, type_code type, const void* data, int32 size);
	// Whether the index-th item of name and type exists (false for a null
	// name).
	bool HasData(const char* name, type_code type, int32 index) const;

	// Appends an item of any type code, ZV_ANY_TYPE included; false only for
	// null data.
	bool _AddData(const char* name, type_code type, int32 size, const void* data);
	// Hands back the index-th item of name and type itself in *item (false
	// when absent or item is null).
	bool _FindData(const char* name, type_code type, int32 index, ZvMessageItem** item) const;
	// The item's ReplaceData on the index-th item of name and type: reads
	// max(size, stored size) bytes from data. False when absent or data is
	// null.
	bool _ReplaceData(const char* name, type_code type, int32 index, int32 size, const void* data);
	// Whether the index-th item of name and type exists.
	bool _HasData(const char* name, type_code type, int32 index) const;

	//@{
	// bool fields ("BOOL", one byte). Typed fields: Add appends the value
	// under name (always true); Find copies the index-th value of that name
	// and type into *value (index 0 when none is given) and is false when
	// there is none or the output is null; Replace overwrites that value
	// (false when absent); Has tells whether it exists. Find matches the
	// exact type code (no conversion between widths).
	bool AddBool(const char* name, bool value);
	bool FindBool(const char* name, int32 index, bool* value) const;
	bool FindBool(const char* name, bool* value) const;
	bool ReplaceBool(const char* name, int32 index, bool value);
	bool ReplaceBool(const char* name, bool value);
	bool HasBool(const char* name, int32 index = 0) const;
	//@}

	//@{
	// int8 fields ("SI08", one byte), with the typed fields' Add, Find,
	// Replace and Has as for bool.
	bool AddInt8(const char* name, int8 value);
	bool FindInt8(const char* name, int32 index, int8* value) const;
	bool FindInt8(const char* name, int8* value) const;
	bool ReplaceInt8(const char* name, int32 index, int8 value);
	bool ReplaceInt8(const char* name, int8 value);
	bool HasInt8(const char* name, int32 index = 0) const;
	//@}

	//@{
	// int16 fields ("SI16", two bytes), with the typed fields' Add, Find,
	// Replace and Has as for bool.
	bool AddInt16(const char* name, int16 value);
	bool FindInt16(const char* name, int32 index, int16* value) const;
	bool FindInt16(const char* name, int16* value) const;
	bool ReplaceInt16(const char* name, int32 index, int16 value);
	bool ReplaceInt16(const char* name, int16 value);
	bool HasInt16(const char* name, int32 index = 0) const;
	//@}

	//@{
	// int32 fields ("SI32", four bytes), with the typed fields' Add, Find,
	// Replace and Has as for bool.
	bool AddInt32(const char* name, int32 value);
	bool FindInt32(const char* name, int32 index, int32* value) const;
	bool FindInt32(const char* name, int32* value) const;
	bool ReplaceInt32(const char* name, int32 index, int32 value);
	bool ReplaceInt32(const char* name, int32 value);
	bool HasInt32(const char* name, int32 index = 0) const;
	//@}

	//@{
	// int64 fields ("SI64", eight bytes), with the typed fields' Add, Find,
	// Replace and Has as for bool.
	bool AddInt64(const char* name, int64 value);
	bool FindInt64(const char* name, int32 index, int64* value) const;
	bool FindInt64(const char* name, int64* value) const;
	bool ReplaceInt64(const char* name, int32 index, int64 value);
	bool ReplaceInt64(const char* name, int64 value);
	bool HasInt64(const char* name, int32 index = 0) const;
	//@}

	//@{
	// float fields ("FT32"), with the typed fields' Add, Find,
	// Replace and Has as for bool.
	bool AddFloat(const char* name, float value);
	bool FindFloat(const char* name, int32 index, float* value) const;
	bool FindFloat(const char* name, float* value) const;
	bool ReplaceFloat(const char* name, int32 index, float value);
	bool ReplaceFloat(const char* name, float value);
	bool HasFloat(const char* name, int32 index = 0) const;
	//@}

	//@{
	// double fields ("FT64"), with the typed fields' Add, Find,
	// Replace and Has as for bool.
	bool AddDouble(const char* name, double value);
	bool FindDouble(const char* name, int32 index, double* value) const;
	bool FindDouble(const char* name, double* value) const;
	bool ReplaceDouble(const char* name, int32 index, double value);
	bool ReplaceDouble(const char* name, double value);
	bool HasDouble(const char* name, int32 index = 0) const;
	//@}

	//@{
	// Strings are stored with their terminator. FindString hands back the
	// stored characters themselves; it refuses an item without a terminator.
	bool AddString(const char* name, const char* string);
	bool FindString(const char* name, int32 index, const char** string) const;
	bool FindString(const char* name, const char** string) const;
	bool ReplaceString(const char* name, int32 index, const char* string);
	bool ReplaceString(const char* name, const char* string);
	bool HasString(const char* name, int32 index = 0) const;
	//@}

	//@{
	// The address value itself, in sizeof(void*) bytes.
	bool AddPointer(const char* name, const void* pointer);
	bool FindPointer(const char* name, int32 index, void** pointer) const;
	bool FindPointer(const char* name, void** pointer) const;
	bool ReplacePointer(const char* name, int32 index, const void* pointer);
	bool ReplacePointer(const char* name, const void* pointer);
	bool HasPointer(const char* name, int32 index = 0) const;
	//@}

	//@{
	// The colour's eight bytes as they lie.
	bool AddColor(const char* name, const zv_color* color);
	bool FindColor(const char* name, int32 index, zv_color* color) const;
	bool FindColor(const char* name, zv_color* color) const;
	bool ReplaceColor(const char* name, int32 index, const zv_color* color);
	bool ReplaceColor(const char* name, const zv_color* color);
	bool HasColor(const char* name, int32 index = 0) const;
	//@}

	//@{
	// A flattened deep copy. FindMessage unflattens it into message (emptied
	// first; what and flags overwritten) and returns that result.
	bool AddMessage(const char* name, const ZvMessage* message);
	bool FindMessage(const char* name, int32 index, ZvMessage* message) const;
	bool FindMessage(const char* name, ZvMessage* message) const;
	bool ReplaceMessage(const char* name, int32 index, const ZvMessage* message);
	bool ReplaceMessage(const char* name, const ZvMessage* message);
	bool HasMessage(const char* name, int32 index = 0) const;
	//@}

	//@{
	// Rectangles are stored as four doubles (left, top, right, bottom) and
	// points as two (x, y), whatever the element type. Find converts: to
	// float by rounding, to int32 and int16 by truncation toward zero. An
	// item of another size is read as elements of the requested type.
	bool AddRect(const char* name, ZvRect<double> rect);
	bool AddRect(const char* name, ZvRect<float> rect);
	bool AddRect(const char* name, ZvRect<int32> rect);
	bool AddRect(const char* name, ZvRect<int16> rect);
	bool FindRect(const char* name, int32 index, ZvRect<double>* rect) const;
	bool FindRect(const char* name, ZvRect<double>* rect) const;
	bool FindRect(const char* name, int32 index, ZvRect<float>* rect) const;
	bool FindRect(const char* name, ZvRect<float>* rect) const;
	bool FindRect(const char* name, int32 index, ZvRect<int32>* rect) const;
	bool FindRect(const char* name, ZvRect<int32>* rect) const;
	bool FindRect(const char* name, int32 index, ZvRect<int16>* rect) const;
	bool FindRect(const char* name, ZvRect<int16>* rect) const;
	bool ReplaceRect(const char* name, int32 index, ZvRect<double> rect);
	bool ReplaceRect(const char* name, ZvRect<double> rect);
	bool ReplaceRect(const char* name, int32 index, ZvRect<float> rect);
	bool ReplaceRect(const char* name, ZvRect<float> rect);
	bool ReplaceRect(const char* name, int32 index, ZvRect<int32> rect);
	bool ReplaceRect(const char* name, ZvRect<int32> rect);
	bool ReplaceRect(const char* name, int32 index, ZvRect<int16> rect);
	bool ReplaceRect(const char* name, ZvRect<int16> rect);
	bool HasRect(const char* name, int32 index = 0) const;
	//@}

	//@{
	// Points: stored as two doubles (x, y) and converted on Find as
	// rectangles are.
	bool AddPoint(const char* name, ZvPoint<double> point);
	bool AddPoint(const char* name, ZvPoint<float> point);
	bool AddPoint(const char* name, ZvPoint<int32> point);
	bool AddPoint(const char* name, ZvPoint<int16> point);
	bool FindPoint(const char* name, int32 index, ZvPoint<double>* point) const;
	bool FindPoint(const char* name, ZvPoint<double>* point) const;
	bool FindPoint(const char* name, int32 index, ZvPoint<float>* point) const;
	bool FindPoint(const char* name, ZvPoint<float>* point) const;
	bool FindPoint(const char* name, int32 index, ZvPoint<int32>* point) const;
	bool FindPoint(const char* name, ZvPoint<int32>* point) const;
	bool FindPoint(const char* name, int32 index, ZvPoint<int16>* point) const;
	bool FindPoint(const char* name, ZvPoint<int16>* point) const;
	bool ReplacePoint(const char* name, int32 index, ZvPoint<double> point);
	bool ReplacePoint(const char* name, ZvPoint<double> point);
	bool ReplacePoint(const char* name, int32 index, ZvPoint<float> point);
	bool ReplacePoint(const char* name, ZvPoint<float> point);
	bool ReplacePoint(const char* name, int32 index, ZvPoint<int32> point);
	bool ReplacePoint(const char* name, ZvPoint<int32> point);
	bool ReplacePoint(const char* name, int32 index, ZvPoint<int16> point);
	bool ReplacePoint(const char* name, ZvPoint<int16> point);
	bool HasPoint(const char* name, int32 index = 0) const;
	//@}

	// The flattened form: 12 + the sum of the items' Size().
	int32 FlattenedSize() const;
	// Writes the block at buffer, which must hold FlattenedSize() bytes;
	// stores the bytes written in *size when size is given.
	bool Flatten(void* buffer, int32* size = nullptr) const;
	// Replaces the content with the block's. The block is trusted: use the
	// bounded form for data that may be malformed.
	bool Unflatten(const void* buffer);
	// Reads a block from at most size bytes, checking every count, size and
	// terminator against them. On a malformed or truncated block, returns
	// false with the message's items removed (what and flags untouched).
	// A count of 0 or below means no records, as in the trusting form; bytes
	// after the block are ignored. The buffer must not lie inside this
	// message's own items.
	bool Unflatten(const void* buffer, size_t size);

	// Flatten in the given byte order: ZV_HOST_ENDIAN writes the same bytes
	// as Flatten. Nested messages are swapped too, so each one's stored block
	// must be well formed. Returns B_OK; B_BAD_VALUE for a null buffer or an
	// unknown order; B_BAD_DATA when a nested message cannot be swapped (the
	// buffer's content is then undefined).
	status_t Flatten(void* buffer, zv_byte_order order, int32* size = nullptr) const;
	// The bounded Unflatten of a block in the given byte order: ZV_HOST_ENDIAN
	// reads as Unflatten(buffer, size) does. A block in the other order has
	// its nested messages checked and swapped as well. Returns B_OK;
	// B_BAD_VALUE for a null buffer or an unknown order (message unchanged);
	// B_BAD_DATA for a malformed block (items removed, what and flags
	// untouched, as the bounded Unflatten leaves them).
	status_t Unflatten(const void* buffer, size_t size, zv_byte_order order);

	// Dumps the message on standard output.
	void PrintToStream() const;

	// Requests (see ZvLooperRef::SendMessage). A message that a sender is
	// waiting on is linked to that sender; deleting it unanswered answers
	// "no reply" (what B_NO_REPLY). The link is never copied: copies (the
	// copy constructors, operator=, Set, the operators + and -) are plain
	// messages, and assignment keeps the target's own link.
	//
	// Answers the sender of this message with a copy of reply: B_OK when
	// the sender was waiting, B_TIMED_OUT when it had stopped waiting,
	// B_DUPLICATE_REPLY when the message was already answered, B_BAD_REPLY
	// when the message is not a request, B_BAD_VALUE for a null reply.
	status_t SendReply(const ZvMessage* reply);
	// Whether a sender waits for an answer to this message.
	bool IsSourceWaiting() const;

	uint32 what; // The command code.

private:
	ZvMessageItem* _FindItem(const char* name, type_code type, int32 index) const;
	bool _UnflattenBlock(const void* buffer, size_t size, bool bounded, bool swapped = false);
	// Answers "no reply" to a waiting sender and drops the link.
	void _AbandonRequest();

	// The sender's side of a request, for ZvLooperRef. _MakeRequest links
	// this message (not yet posted) to a new reply slot, which it returns
	// with the sender's reference. _AwaitReply waits on the slot until
	// deadline (system_time; negative: none), then drops the sender's
	// reference: B_OK with *answered telling whether a reply came (assigned
	// to reply) or the request was deleted unanswered; or B_TIMED_OUT.
	zvkit::internal::ReplySlot* _MakeRequest();
	static status_t _AwaitReply(zvkit::internal::ReplySlot* slot, bigtime_t deadline,
	                            ZvMessage* reply, bool* answered);
	// Drops the sender's reference without waiting (the request was not
	// posted).
	static void _ForgetRequest(zvkit::internal::ReplySlot* slot);

	friend class ZvLooperRef;
	friend class ZvMessageQueue;

	// For a looper's queue, which hands out messages made on other threads:
	// each asks for the lines the looper will read next, in two steps that
	// a queue runs a few messages apart, since each reads what the step
	// before brought in. _PrefetchList reads the message itself and asks for
	// its slot array; _PrefetchItems reads the slot array and asks for the
	// first items' lines. Neither changes anything.
	void _PrefetchList() const;
	void _PrefetchItems() const;

	// The name index of a message of many items, made by the first lookup
	// that needs it; null while the message is small or the index is out of
	// step with the list.
	zvkit::internal::NameIndex* _Index() const;
	// The index as it stands (null when none was made), without making one.
	zvkit::internal::NameIndex* _IndexMade() const;
	// The record of rarely needed parts, made when there is none yet.
	zvkit::internal::MessageParts* _Parts() const;
	// _Index() for a message of many items, else null without a call.
	zvkit::internal::NameIndex* _LargeIndex() const;
	// Appends item to the list, or removes the list's item at index and
	// deletes it, keeping the index in step.
	void _AppendItem(ZvMessageItem* item);
	void _DeleteItemAt(int32 index);
	void _DropIndex();

	uint32 fFlags;

protected:
	// A derived class that changes the list itself is noticed by the count
	// of items and gets its index made again; it must not rename or retype
	// the items of a message of many items.
	ZvList<ZvMessageItem*> items; // The fields, in order of addition; owned.

private:
	// A request's reply slot and the name index, which few messages need:
	// null until one of them is made. Made by const lookups too, so
	// published to concurrent readers atomically; changed otherwise only by
	// the message's sole user.
	mutable std::atomic<zvkit::internal::MessageParts*> fParts;
};

#endif // _ZV_MESSAGE_H
