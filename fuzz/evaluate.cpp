// Feeds arbitrary bytes to ZV_Evaluate: every input must give -1 or a value,
// never a crash, an out-of-bounds access or a leak.
#include <ZvEvaluate.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
	// The evaluator reads a zero-terminated string.
	std::vector<char> text(data, data + size);
	text.push_back('\0');
	double result = 0;
	const int32 status = ZV_Evaluate(text.data(), &result);
	if (status != 0 && status != -1)
		std::abort();
	return 0;
}
