// The ZvKit tour: runs every registered section in order.
#include "Tour.h"

#include <ZvKitVersion.h>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

struct Section
{
	int order;
	const char* title;
	void (*run)();
};

std::vector<Section>& Sections()
{
	static std::vector<Section> sSections;
	return sSections;
}

} // namespace

TourSection::TourSection(int order, const char* title, void (*run)())
{
	Sections().push_back(Section{order, title, run});
}

int main()
{
	std::printf("ZvKit %s tour\n", ZVKIT_VERSION_STRING);
	std::vector<Section> sections = Sections();
	std::stable_sort(sections.begin(), sections.end(),
	                 [](const Section& a, const Section& b) { return a.order < b.order; });
	for (const Section& section : sections) {
		std::printf("\n== %s ==\n", section.title);
		std::fflush(stdout);
		section.run();
		std::fflush(stdout);
	}
	std::printf("\nTour finished: %zu sections.\n", sections.size());
	return 0;
}
