// The tour's screen section: the main screen's frame in whole pixels.
#include "Tour.h"

#include <ZvKit.h>

#include <cstdio>
#include <cstdlib>

namespace {

void ShowScreen()
{
	const char* display = std::getenv("DISPLAY");
	ZvScreen screen;
	if (!screen.IsValid()) {
		std::printf("The main screen is not valid: no display is reachable through DISPLAY=%s\n"
		            "(or libX11 cannot be loaded by this build).\n",
		            display != nullptr ? display : "(unset)");
	} else {
		std::printf("Main screen of X display %s:\n", display);
	}
	ZvRect<int32> frame = screen.Frame();
	std::printf("  Frame() = {%d, %d, %d, %d}, %d x %d pixels\n", static_cast<int>(frame.left),
	            static_cast<int>(frame.top), static_cast<int>(frame.right),
	            static_cast<int>(frame.bottom), static_cast<int>(frame.Width() + 1),
	            static_cast<int>(frame.Height() + 1));
}

} // namespace

static TourSection sSection(72, "Screen", &ShowScreen);
