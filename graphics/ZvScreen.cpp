// ZvScreen.cpp: the main screen's frame in whole pixels.

#include <ZvScreen.h>

#include "ScreenFrame.h"

ZvScreen::ZvScreen() : BScreen(B_MAIN_SCREEN_ID) {}

ZvScreen::~ZvScreen() {}

ZvRect<int32> ZvScreen::Frame()
{
	// An invalid screen's platform frame is (0, 0, -1, -1), which converts
	// to the invalid whole-pixel frame as it is.
	return zv_truncate_frame(BScreen::Frame());
}
