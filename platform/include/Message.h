// Message.h: the application kit's message, BMessage.
//
// A BMessage carries a public command code, `what`, and any number of named
// fields. A field has one type code (TypeConstants.h) and holds one or more
// items of that type; items are addressed by index from 0. Fields are kept in
// the order they were first added.
//
// Results follow the platform's status codes:
//  - B_BAD_VALUE: a null name, a null out-pointer or null data, or raw data
//    whose size does not match the field's fixed item size;
//  - B_NAME_NOT_FOUND: no field of that name;
//  - B_BAD_TYPE: a field of that name exists with another type;
//  - B_BAD_INDEX: the field has no item at that index.
//
// Ownership: the message owns its fields and their items. Pointers handed
// back by the Find members (strings, raw data) point into the message and
// stay valid until that field is replaced, removed or emptied, or the
// message is assigned to or destroyed. Nested messages are stored in
// flattened form; FindMessage rebuilds them into the caller's object.
//
// A message that a looper delivers also knows how to answer its sender:
// SendReply sends the answer to a sender waiting in BMessenger::SendMessage,
// or to the reply handler named when the message was posted. A waiting sender
// whose message is deleted without an answer receives B_NO_REPLY.
//
// Thread safety: a BMessage is not locked; one thread at a time may use it.
#ifndef _MESSAGE_H
#define _MESSAGE_H

#include <AppDefs.h>
#include <OS.h>
#include <SupportDefs.h>
#include <TypeConstants.h>

#include <sys/types.h>

class BHandler;
class BLooper;
class BMessenger;

namespace BPrivate {
class MessageAccess;
}

class _EXPORT BMessage
{
public:
	uint32 what;

	BMessage();
	BMessage(uint32 what);
	BMessage(const BMessage& other);
	virtual ~BMessage();

	BMessage& operator=(const BMessage& other);

	// Information about the fields.
	status_t GetInfo(type_code typeRequested, int32 index, char** nameFound, type_code* typeFound,
	                 int32* countFound = nullptr) const;
	status_t GetInfo(const char* name, type_code* typeFound, int32* countFound = nullptr) const;
	status_t GetInfo(const char* name, type_code* typeFound, bool* fixedSize) const;
	// Number of fields of that type; B_ANY_TYPE counts every field.
	int32 CountNames(type_code type) const;
	bool IsEmpty() const;

	// Removing fields.
	status_t RemoveName(const char* name);
	status_t RemoveData(const char* name, int32 index = 0);
	status_t MakeEmpty();

	// Replies (for a message delivered by a looper).
	status_t SendReply(uint32 command, BHandler* replyTo = nullptr);
	status_t SendReply(BMessage* reply, BHandler* replyTo = nullptr,
	                   bigtime_t timeout = B_INFINITE_TIMEOUT);
	// A sender waits in BMessenger::SendMessage for the answer.
	bool IsSourceWaiting() const;
	// The message was delivered by a looper (not built by the caller).
	bool WasDelivered() const;

	// Raw data. isFixedSize: every item of the field has numBytes bytes;
	// count: how many items the field will probably hold (a hint).
	status_t AddData(const char* name, type_code type, const void* data, ssize_t numBytes,
	                 bool isFixedSize = true, int32 count = 1);
	status_t FindData(const char* name, type_code type, int32 index, const void** data,
	                  ssize_t* numBytes) const;
	status_t FindData(const char* name, type_code type, const void** data, ssize_t* numBytes) const;
	status_t ReplaceData(const char* name, type_code type, int32 index, const void* data,
	                     ssize_t numBytes);
	status_t ReplaceData(const char* name, type_code type, const void* data, ssize_t numBytes);
	// type B_ANY_TYPE matches a field of any type.
	bool HasData(const char* name, type_code type, int32 index = 0) const;

	// Typed fields.
	status_t AddBool(const char* name, bool value);
	status_t AddInt8(const char* name, int8 value);
	status_t AddInt16(const char* name, int16 value);
	status_t AddInt32(const char* name, int32 value);
	status_t AddInt64(const char* name, int64 value);
	status_t AddFloat(const char* name, float value);
	status_t AddDouble(const char* name, double value);
	status_t AddString(const char* name, const char* string);
	status_t AddPointer(const char* name, const void* pointer);
	status_t AddMessage(const char* name, const BMessage* message);

	status_t FindBool(const char* name, bool* value) const;
	status_t FindBool(const char* name, int32 index, bool* value) const;
	status_t FindInt8(const char* name, int8* value) const;
	status_t FindInt8(const char* name, int32 index, int8* value) const;
	status_t FindInt16(const char* name, int16* value) const;
	status_t FindInt16(const char* name, int32 index, int16* value) const;
	status_t FindInt32(const char* name, int32* value) const;
	status_t FindInt32(const char* name, int32 index, int32* value) const;
	status_t FindInt64(const char* name, int64* value) const;
	status_t FindInt64(const char* name, int32 index, int64* value) const;
	status_t FindFloat(const char* name, float* value) const;
	status_t FindFloat(const char* name, int32 index, float* value) const;
	status_t FindDouble(const char* name, double* value) const;
	status_t FindDouble(const char* name, int32 index, double* value) const;
	status_t FindString(const char* name, const char** string) const;
	status_t FindString(const char* name, int32 index, const char** string) const;
	status_t FindPointer(const char* name, void** pointer) const;
	status_t FindPointer(const char* name, int32 index, void** pointer) const;
	status_t FindMessage(const char* name, BMessage* message) const;
	status_t FindMessage(const char* name, int32 index, BMessage* message) const;

	status_t ReplaceBool(const char* name, bool value);
	status_t ReplaceBool(const char* name, int32 index, bool value);
	status_t ReplaceInt8(const char* name, int8 value);
	status_t ReplaceInt8(const char* name, int32 index, int8 value);
	status_t ReplaceInt16(const char* name, int16 value);
	status_t ReplaceInt16(const char* name, int32 index, int16 value);
	status_t ReplaceInt32(const char* name, int32 value);
	status_t ReplaceInt32(const char* name, int32 index, int32 value);
	status_t ReplaceInt64(const char* name, int64 value);
	status_t ReplaceInt64(const char* name, int32 index, int64 value);
	status_t ReplaceFloat(const char* name, float value);
	status_t ReplaceFloat(const char* name, int32 index, float value);
	status_t ReplaceDouble(const char* name, double value);
	status_t ReplaceDouble(const char* name, int32 index, double value);
	status_t ReplaceString(const char* name, const char* string);
	status_t ReplaceString(const char* name, int32 index, const char* string);
	status_t ReplacePointer(const char* name, const void* pointer);
	status_t ReplacePointer(const char* name, int32 index, const void* pointer);
	status_t ReplaceMessage(const char* name, const BMessage* message);
	status_t ReplaceMessage(const char* name, int32 index, const BMessage* message);

	bool HasBool(const char* name, int32 index = 0) const;
	bool HasInt8(const char* name, int32 index = 0) const;
	bool HasInt16(const char* name, int32 index = 0) const;
	bool HasInt32(const char* name, int32 index = 0) const;
	bool HasInt64(const char* name, int32 index = 0) const;
	bool HasFloat(const char* name, int32 index = 0) const;
	bool HasDouble(const char* name, int32 index = 0) const;
	bool HasString(const char* name, int32 index = 0) const;
	bool HasPointer(const char* name, int32 index = 0) const;
	bool HasMessage(const char* name, int32 index = 0) const;

private:
	friend class BPrivate::MessageAccess;

	struct Fields;
	struct Delivery;

	Fields* fFields;
	// Set only on the copies a looper delivers; never copied by assignment.
	Delivery* fDelivery;
};

#endif // _MESSAGE_H
