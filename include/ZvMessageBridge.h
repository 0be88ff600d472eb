// ZvMessageBridge.h: converting between ZvMessage and the platform's BMessage.
//
// Code that uses both the library's messages and the platform's (the data
// subscription classes deliver their events as BMessages) can move content
// from one to the other. The families both classes know are carried as each
// other's types:
//
//   ZvMessage            BMessage
//   "BOOL"  bool          B_BOOL_TYPE
//   "SI08"  int8          B_INT8_TYPE
//   "SI16"  int16         B_INT16_TYPE
//   "SI32"  int32         B_INT32_TYPE
//   "SI64"  int64         B_INT64_TYPE
//   "FT32"  float         B_FLOAT_TYPE
//   "FT64"  double        B_DOUBLE_TYPE
//   "CPTR"  string        B_STRING_TYPE
//   "LPTR"  pointer       B_POINTER_TYPE
//   "BMSG"  message       B_MESSAGE_TYPE (converted recursively)
//   "RECT"  4 doubles     B_RECT_TYPE, a BRect of 4 floats
//   "PONT"  2 doubles     B_POINT_TYPE, 2 floats (x, y)
//   "COLR"  zv_color      B_RGB_COLOR_TYPE, an rgb_color
//
// Every other type code (B_RAW_TYPE, caller-defined codes, ...) is carried
// as raw bytes under its own code, unchanged.
//
// What is lost from ZvMessage to BMessage: the flags word (a BMessage has
// none); the order of items across names (a BMessage keeps the items of one
// name together, in the place of the name's first item); the items of a
// name already used with another type (a BMessage field has one type); a
// bool byte other than 0 and 1 (it becomes true); bytes after a string's
// terminator or after a number's width; the precision of rectangles and
// points (doubles become floats); the CMYK channels of a colour. Items that
// find no place (a second type under one name, a string without terminator,
// a value shorter than its type, a pointer of another width than the host's,
// a malformed nested message, nesting deeper than 64 levels) are dropped
// and counted.
//
// What is lost from BMessage to ZvMessage: names longer than 63 characters
// are cut to 63; whether a field was of fixed size; a colour gains CMYK
// channels computed from its RGB ones. Rectangles, points and colours of an
// unexpected size, and nesting deeper than 64 levels, are dropped and
// counted. The target's flags are left as they are.
//
// Results: B_OK when every item was carried; B_MISMATCHED_VALUES when some
// were dropped (the target holds all the others and *dropped, when given,
// their number); B_BAD_VALUE for a null source or target (nothing changed).
// The target is emptied first and takes the source's what.
//
// Thread safety: reentrant; the two messages belong to the caller's thread
// for the duration of the call.
#ifndef _ZV_MESSAGE_BRIDGE_H
#define _ZV_MESSAGE_BRIDGE_H

#include <SupportDefs.h>

#include <ZvExport.h>
#include <ZvMessage.h>

#include <Message.h>

ZV_EXPORT status_t ZV_ToBMessage(const ZvMessage* source, BMessage* target,
                                 int32* dropped = nullptr);
ZV_EXPORT status_t ZV_FromBMessage(const BMessage* source, ZvMessage* target,
                                   int32* dropped = nullptr);

#endif // _ZV_MESSAGE_BRIDGE_H
