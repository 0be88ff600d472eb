// Screen.cpp: BScreen over the X11 display named by DISPLAY.
//
// libX11 is opened with dlopen the first time a screen is constructed and
// stays loaded; the five calls needed are declared here, so the platform
// library neither links against libX11 nor needs its headers. Where the
// library cannot be loaded (for instance a 32-bit program on a host with
// only the 64-bit libX11), every screen is simply not valid.

#include <Screen.h>

#include <dlfcn.h>

#include <cstdlib>
#include <mutex>

const screen_id B_MAIN_SCREEN_ID = {0};

namespace {

// Opaque to this code: only pointers to it are passed around.
struct XDisplay;

struct X11Functions
{
	XDisplay* (*openDisplay)(const char* name) = nullptr;
	int (*defaultScreen)(XDisplay* display) = nullptr;
	int (*displayWidth)(XDisplay* display, int screen) = nullptr;
	int (*displayHeight)(XDisplay* display, int screen) = nullptr;
	int (*closeDisplay)(XDisplay* display) = nullptr;
	bool loaded = false;
};

template <typename Function> bool Resolve(void* library, const char* name, Function* function)
{
	*function = reinterpret_cast<Function>(dlsym(library, name));
	return *function != nullptr;
}

const X11Functions& X11()
{
	static X11Functions functions;
	static std::once_flag once;
	std::call_once(once, [] {
		void* library = dlopen("libX11.so.6", RTLD_NOW | RTLD_LOCAL);
		if (library == nullptr)
			return;
		functions.loaded = Resolve(library, "XOpenDisplay", &functions.openDisplay) &&
		                   Resolve(library, "XDefaultScreen", &functions.defaultScreen) &&
		                   Resolve(library, "XDisplayWidth", &functions.displayWidth) &&
		                   Resolve(library, "XDisplayHeight", &functions.displayHeight) &&
		                   Resolve(library, "XCloseDisplay", &functions.closeDisplay);
	});
	return functions;
}

// Xlib is not initialised for threads here; one connection at a time.
std::mutex sDisplayLock;

bool ReadMainScreen(int32* width, int32* height)
{
	const char* name = std::getenv("DISPLAY");
	if (name == nullptr || name[0] == '\0')
		return false;
	const X11Functions& x11 = X11();
	if (!x11.loaded)
		return false;
	std::lock_guard<std::mutex> lock(sDisplayLock);
	XDisplay* display = x11.openDisplay(name);
	if (display == nullptr)
		return false;
	const int screen = x11.defaultScreen(display);
	*width = x11.displayWidth(display, screen);
	*height = x11.displayHeight(display, screen);
	x11.closeDisplay(display);
	return *width > 0 && *height > 0;
}

} // namespace

BScreen::BScreen(screen_id id) : fID(id), fValid(false)
{
	int32 width = 0;
	int32 height = 0;
	if (id.id == B_MAIN_SCREEN_ID.id && ReadMainScreen(&width, &height)) {
		fValid = true;
		fFrame.Set(0, 0, static_cast<float>(width - 1), static_cast<float>(height - 1));
	}
}

BScreen::~BScreen() {}

bool BScreen::IsValid()
{
	return fValid;
}

status_t BScreen::SetToNext()
{
	return B_ERROR;
}

BRect BScreen::Frame()
{
	return fFrame;
}

screen_id BScreen::ID()
{
	return fID;
}
