// SupportDefs.h: the platform's basic types, status codes and export marker.
//
// Off the platform this file stands in for the system header of the same
// name: fixed-width integer types, status_t and its error codes with the
// platform's values, bigtime_t and type_code.
#ifndef _SUPPORT_DEFS_H
#define _SUPPORT_DEFS_H

#include <stddef.h>
#include <stdint.h>

// Marks a symbol of the platform libraries as visible outside them (every
// library of the project is built with hidden visibility by default).
#define _EXPORT __attribute__((visibility("default")))

typedef int8_t int8;
typedef uint8_t uint8;
typedef int16_t int16;
typedef uint16_t uint16;
typedef int32_t int32;
typedef uint32_t uint32;
typedef int64_t int64;
typedef uint64_t uint64;

typedef int32 status_t;
typedef int64 bigtime_t;
typedef uint32 type_code;
typedef uint32 perform_code;

// Error bases, as on the platform: every error is a negative 32-bit value.
#define B_GENERAL_ERROR_BASE ((int32)0x80000000)
#define B_OS_ERROR_BASE (B_GENERAL_ERROR_BASE + 0x1000)
#define B_APP_ERROR_BASE (B_GENERAL_ERROR_BASE + 0x2000)
#define B_INTERFACE_ERROR_BASE (B_GENERAL_ERROR_BASE + 0x3000)

enum
{
	B_OK = 0,
	B_NO_ERROR = 0,
	B_ERROR = -1,

	B_NO_MEMORY = B_GENERAL_ERROR_BASE + 0,
	B_IO_ERROR = B_GENERAL_ERROR_BASE + 1,
	B_PERMISSION_DENIED = B_GENERAL_ERROR_BASE + 2,
	B_BAD_INDEX = B_GENERAL_ERROR_BASE + 3,
	B_BAD_TYPE = B_GENERAL_ERROR_BASE + 4,
	B_BAD_VALUE = B_GENERAL_ERROR_BASE + 5,
	B_MISMATCHED_VALUES = B_GENERAL_ERROR_BASE + 6,
	B_NAME_NOT_FOUND = B_GENERAL_ERROR_BASE + 7,
	B_NAME_IN_USE = B_GENERAL_ERROR_BASE + 8,
	B_TIMED_OUT = B_GENERAL_ERROR_BASE + 9,
	B_INTERRUPTED = B_GENERAL_ERROR_BASE + 10,
	B_WOULD_BLOCK = B_GENERAL_ERROR_BASE + 11,
	B_CANCELED = B_GENERAL_ERROR_BASE + 12,
	B_NO_INIT = B_GENERAL_ERROR_BASE + 13,
	B_BUSY = B_GENERAL_ERROR_BASE + 14,
	B_NOT_ALLOWED = B_GENERAL_ERROR_BASE + 15,
	B_BAD_DATA = B_GENERAL_ERROR_BASE + 16,

	B_BAD_SEM_ID = B_OS_ERROR_BASE + 0,
	B_NO_MORE_SEMS = B_OS_ERROR_BASE + 1,
	B_BAD_THREAD_ID = B_OS_ERROR_BASE + 0x100,
	B_NO_MORE_THREADS = B_OS_ERROR_BASE + 0x101,
	B_BAD_THREAD_STATE = B_OS_ERROR_BASE + 0x102,
	B_BAD_TEAM_ID = B_OS_ERROR_BASE + 0x103,
	B_NO_MORE_TEAMS = B_OS_ERROR_BASE + 0x104,
	B_BAD_PORT_ID = B_OS_ERROR_BASE + 0x2000,
	B_NO_MORE_PORTS = B_OS_ERROR_BASE + 0x2001,

	B_BAD_REPLY = B_APP_ERROR_BASE + 0,
	B_DUPLICATE_REPLY = B_APP_ERROR_BASE + 1,
	B_MESSAGE_TO_SELF = B_APP_ERROR_BASE + 2,
	B_BAD_HANDLER = B_APP_ERROR_BASE + 3,
	B_ALREADY_RUNNING = B_APP_ERROR_BASE + 4,
};

#endif // _SUPPORT_DEFS_H
