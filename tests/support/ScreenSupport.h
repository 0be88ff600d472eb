// ScreenSupport.h: helpers of the screen tests.
//
//  - DisplayOverride: sets (or unsets) DISPLAY for one test and restores the
//    previous value afterwards.
//  - TestDisplay(): the X server started by the test command
//    (ZVKIT_TEST_DISPLAY), or null when there is none.
//  - X11Loadable(): whether this program can load libX11 at all (a 32-bit
//    build on a host with only the 64-bit library cannot).
//  - RealDisplayUnavailable(): why a test against the real server must be
//    skipped, or null.
#ifndef ZVKIT_SCREEN_SUPPORT_H
#define ZVKIT_SCREEN_SUPPORT_H

#include <cstdlib>
#include <string>

#include <dlfcn.h>

namespace zvtest {

class DisplayOverride
{
public:
	// A null `display` removes DISPLAY from the environment.
	explicit DisplayOverride(const char* display)
	{
		const char* previous = std::getenv("DISPLAY");
		fHadPrevious = previous != nullptr;
		if (fHadPrevious)
			fPrevious = previous;
		if (display != nullptr)
			setenv("DISPLAY", display, 1);
		else
			unsetenv("DISPLAY");
	}

	~DisplayOverride()
	{
		if (fHadPrevious)
			setenv("DISPLAY", fPrevious.c_str(), 1);
		else
			unsetenv("DISPLAY");
	}

	DisplayOverride(const DisplayOverride&) = delete;
	DisplayOverride& operator=(const DisplayOverride&) = delete;

private:
	bool fHadPrevious = false;
	std::string fPrevious;
};

inline const char* TestDisplay()
{
	const char* display = std::getenv("ZVKIT_TEST_DISPLAY");
	return display != nullptr && display[0] != '\0' ? display : nullptr;
}

inline bool X11Loadable()
{
	void* library = dlopen("libX11.so.6", RTLD_LAZY | RTLD_LOCAL);
	if (library == nullptr)
		return false;
	dlclose(library);
	return true;
}

// Why the tests against a real X server cannot run here, or null when they
// can (the caller then points DISPLAY at TestDisplay()).
inline const char* RealDisplayUnavailable()
{
	if (TestDisplay() == nullptr)
		return "ZVKIT_TEST_DISPLAY is not set: no X server to test against "
		       "(scripts/test-all.sh starts one)";
	if (!X11Loadable())
		return "libX11.so.6 cannot be loaded by this build (for example i386 on a 64-bit "
		       "host): screens are never valid here";
	return nullptr;
}

} // namespace zvtest

#endif // ZVKIT_SCREEN_SUPPORT_H
