// ZvTypeCodes.h: the four-character type codes of message fields.
//
// A type code is a uint32 whose four bytes, most significant first, spell
// four ASCII characters: "SI32" is 0x53493332. ZV_ANY_TYPE is a wildcard for
// searches and is never stored by the typed operations. Any other value may
// be used as a caller-defined type with the generic data operations.
//
// Thread safety: ZV_TypeCodeString is reentrant.
#ifndef _ZV_TYPE_CODES_H
#define _ZV_TYPE_CODES_H

#include <SupportDefs.h>

#include <ZvExport.h>

constexpr type_code ZV_ANY_TYPE = 0x414E5954;     // "ANYT"
constexpr type_code ZV_INT8_TYPE = 0x53493038;    // "SI08", 1 byte
constexpr type_code ZV_INT16_TYPE = 0x53493136;   // "SI16", 2 bytes
constexpr type_code ZV_INT32_TYPE = 0x53493332;   // "SI32", 4 bytes
constexpr type_code ZV_INT64_TYPE = 0x53493634;   // "SI64", 8 bytes
constexpr type_code ZV_FLOAT_TYPE = 0x46543332;   // "FT32", 4 bytes
constexpr type_code ZV_DOUBLE_TYPE = 0x46543634;  // "FT64", 8 bytes
constexpr type_code ZV_BOOL_TYPE = 0x424F4F4C;    // "BOOL", 1 byte
constexpr type_code ZV_STRING_TYPE = 0x43505452;  // "CPTR", length + 1 bytes
constexpr type_code ZV_POINTER_TYPE = 0x4C505452; // "LPTR", sizeof(void*) bytes
constexpr type_code ZV_COLOR_TYPE = 0x434F4C52;   // "COLR", 8 bytes
constexpr type_code ZV_RECT_TYPE = 0x52454354;    // "RECT", 4 doubles
constexpr type_code ZV_POINT_TYPE = 0x504F4E54;   // "PONT", 2 doubles
constexpr type_code ZV_MESSAGE_TYPE = 0x424D5347; // "BMSG", a flattened message

// Writes the four characters of code into buffer (at least 5 bytes), most
// significant byte first, and a terminator. A byte from 33 to 127 stands for
// itself, any other byte becomes a space, and a zero byte ends the text.
// Returns buffer.
ZV_EXPORT char* ZV_TypeCodeString(type_code code, char* buffer);

#endif // _ZV_TYPE_CODES_H
