// AppDefs.h: the application kit's reserved message codes.
//
// The codes are four ASCII characters packed most significant byte first,
// written in hexadecimal with their spelling beside them.
#ifndef _APP_DEFS_H
#define _APP_DEFS_H

#include <SupportDefs.h>

enum
{
	// Asks a looper to quit: the looper calls QuitRequested() and quits when
	// it answers true. A waiting sender gets a reply with the bool "result".
	B_QUIT_REQUESTED =
	    0x5F515251,          // '_QRQ'
	                         // The reply a synchronous sender receives when the message was deleted
	                         // (handled, dropped, or its looper gone) without anyone replying.
	B_NO_REPLY = 0x5F4E5250, // '_NRP'
	                         // A handler did not understand the message it was sent.
	B_MESSAGE_NOT_UNDERSTOOD = 0x4D4E4F54, // 'MNOT'
	                                       // A plain acknowledgement.
	B_REPLY = 0x52504C59,                  // 'RPLY'
};

// Number of messages a looper's queue accepts before posting fails with
// B_WOULD_BLOCK (or a sender with a delivery time-out waits).
#define B_LOOPER_PORT_DEFAULT_CAPACITY 200

#endif // _APP_DEFS_H
