// The smallest ZvKit program: one message, no call into the platform kits.
// Built this way, the program itself needs nothing from libzvplatform, so a
// linker that drops unneeded libraries leaves libzvkit to find it alone.
#include <ZvMessage.h>

#include <cstdio>

int main()
{
	ZvMessage message(42);
	message.AddInt32("n", 7);
	int32 n = 0;
	if (!message.FindInt32("n", &n) || n != 7)
		return 1;
	std::printf("zv-only consumer: what %u, n %d\n", (unsigned)message.what, (int)n);
	return 0;
}
