// Fuzzes the byte-order forms of the flat form: the bounded Unflatten of a
// block in the other order and the detection of a block's order. A refused
// block leaves the message empty; an accepted one flattens back, in the same
// order, to the bytes it was read from (a negative count comes back as 0);
// a block detected in one order reads in that order.
#include <ZvByteOrder.h>
#include <ZvMessage.h>

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
	const zv_byte_order other =
	    ZV_HostByteOrder() == ZV_LITTLE_ENDIAN ? ZV_BIG_ENDIAN : ZV_LITTLE_ENDIAN;
	ZvMessage message(0);
	message.AddInt32("before", 1);
	const status_t status = message.Unflatten(data, size, other);
	if (status != B_OK) {
		if (status != B_BAD_DATA || !message.IsEmpty())
			abort();
	} else {
		std::vector<uint8> again(message.FlattenedSize());
		int32 written = -1;
		if (message.Flatten(again.data(), other, &written) != B_OK)
			abort();
		int32 count;
		memcpy(&count, data + 8, sizeof(count));
		count = static_cast<int32>(__builtin_bswap32(static_cast<uint32>(count)));
		if (count < 0) {
			if (written != 12)
				abort();
			memcpy(again.data() + 8, data + 8, sizeof(count));
		}
		if (written < 0 || static_cast<size_t>(written) > size ||
		    memcmp(again.data(), data, written) != 0) {
			abort();
		}
	}

	zv_order_detection detected;
	if (ZV_DetectByteOrder(data, size, &detected) != B_OK)
		abort();
	if (detected == ZV_ORDER_LITTLE || detected == ZV_ORDER_BIG) {
		ZvMessage read(0);
		const zv_byte_order order = detected == ZV_ORDER_LITTLE ? ZV_LITTLE_ENDIAN : ZV_BIG_ENDIAN;
		if (read.Unflatten(data, size, order) != B_OK)
			abort();
	}
	return 0;
}
