// Tour.h: how the sections of the tour register themselves.
//
// Each subsystem adds one source file to examples/tour/ that defines a
// function showing what the subsystem does and registers it with a
// TourSection object at namespace scope. main() runs the sections in order.
#ifndef ZVKIT_TOUR_H
#define ZVKIT_TOUR_H

struct TourSection
{
	// Sections run by increasing order; the title is printed above each.
	TourSection(int order, const char* title, void (*run)());
};

#endif // ZVKIT_TOUR_H
