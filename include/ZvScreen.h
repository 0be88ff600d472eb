// ZvScreen.h: the main screen's frame in whole pixels.
//
// ZvScreen is a BScreen (Screen.h) always bound to the main screen; it adds
// no data. Frame() gives the platform frame with each coordinate truncated
// toward zero to int32, in the order left, top, right, bottom: a 1024 x 768
// screen gives {0, 0, 1023, 767}. A screen that is not valid (no display
// reachable) gives {0, 0, -1, -1}.
//
// Off the platform the main screen is the default screen of the X11 display
// named by DISPLAY, read when the object is constructed.
//
// Ownership: a plain object, owns nothing beyond its BScreen part.
// Thread safety: separate objects may be used from separate threads.
#ifndef _ZV_SCREEN_H
#define _ZV_SCREEN_H

#include <Screen.h>

#include <ZvExport.h>
#include <ZvGeometry.h>

// The main screen, with its frame in whole pixels.
class ZV_EXPORT ZvScreen : public BScreen
{
public:
	// The main screen (B_MAIN_SCREEN_ID), read now.
	ZvScreen();
	// Nothing of its own to release.
	~ZvScreen();

	// The frame, truncated toward zero to int32 (saturated outside that
	// range, a NaN gives 0); {0, 0, -1, -1} when the screen is not valid.
	ZvRect<int32> Frame();
};

#endif // _ZV_SCREEN_H
