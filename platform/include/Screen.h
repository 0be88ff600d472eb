// Screen.h: the interface kit's screen, BScreen.
//
// A BScreen describes one screen of the display system. Off the platform the
// main screen is the default screen of the X11 display named by the DISPLAY
// environment variable. libX11 is loaded when first needed (dlopen of
// "libX11.so.6"), so programs run where it is absent: without the library,
// without DISPLAY, or without a reachable display the screen is not valid
// and its frame is the invalid rectangle (0, 0, -1, -1). The frame is read
// once, when the object is constructed.
//
// Thread safety: constructing BScreens from several threads is safe; one
// object is a value after construction.
#ifndef _SCREEN_H
#define _SCREEN_H

#include <GraphicsDefs.h>
#include <Rect.h>
#include <SupportDefs.h>

typedef struct screen_id
{
	int32 id;
} screen_id;

// The main screen.
extern _EXPORT const screen_id B_MAIN_SCREEN_ID;

class _EXPORT BScreen
{
public:
	BScreen(screen_id id = B_MAIN_SCREEN_ID);
	~BScreen();

	// The screen exists and its frame could be read.
	bool IsValid();
	// Only the main screen is known: B_ERROR, and the object is unchanged.
	status_t SetToNext();
	// (0, 0, width - 1, height - 1) in pixels; (0, 0, -1, -1) when not valid.
	BRect Frame();
	screen_id ID();

private:
	screen_id fID;
	bool fValid;
	BRect fFrame;
};

#endif // _SCREEN_H
