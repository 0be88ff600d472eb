// TypeConstants.h: the platform's type codes for message fields.
//
// A type code is four ASCII characters packed most significant byte first;
// the values are written in hexadecimal with their spelling beside them.
#ifndef _TYPE_CONSTANTS_H
#define _TYPE_CONSTANTS_H

enum
{
	B_ANY_TYPE = 0x414E5954,       // 'ANYT'
	B_BOOL_TYPE = 0x424F4F4C,      // 'BOOL'
	B_CHAR_TYPE = 0x43484152,      // 'CHAR'
	B_DOUBLE_TYPE = 0x44424C45,    // 'DBLE'
	B_FLOAT_TYPE = 0x464C4F54,     // 'FLOT'
	B_INT8_TYPE = 0x42595445,      // 'BYTE'
	B_INT16_TYPE = 0x53485254,     // 'SHRT'
	B_INT32_TYPE = 0x4C4F4E47,     // 'LONG'
	B_INT64_TYPE = 0x4C4C4E47,     // 'LLNG'
	B_UINT8_TYPE = 0x55425954,     // 'UBYT'
	B_UINT16_TYPE = 0x55534854,    // 'USHT'
	B_UINT32_TYPE = 0x554C4E47,    // 'ULNG'
	B_UINT64_TYPE = 0x554C4C47,    // 'ULLG'
	B_MESSAGE_TYPE = 0x4D534747,   // 'MSGG'
	B_MESSENGER_TYPE = 0x4D534E47, // 'MSNG'
	B_MIME_TYPE = 0x4D494D45,      // 'MIME'
	B_OBJECT_TYPE = 0x4F505452,    // 'OPTR'
	B_OFF_T_TYPE = 0x4F464654,     // 'OFFT'
	B_POINTER_TYPE = 0x504E5452,   // 'PNTR'
	B_POINT_TYPE = 0x42504E54,     // 'BPNT'
	B_RAW_TYPE = 0x52415754,       // 'RAWT'
	B_RECT_TYPE = 0x52454354,      // 'RECT'
	B_RGB_COLOR_TYPE = 0x52474243, // 'RGBC'
	B_SIZE_T_TYPE = 0x53495A54,    // 'SIZT'
	B_SSIZE_T_TYPE = 0x53535A54,   // 'SSZT'
	B_STRING_TYPE = 0x43535452,    // 'CSTR'
	B_TIME_TYPE = 0x54494D45,      // 'TIME'
};

#endif // _TYPE_CONSTANTS_H
