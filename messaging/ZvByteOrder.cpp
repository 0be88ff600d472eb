// The host's byte order and the detection of a block's order.
#include <ZvByteOrder.h>

#include "messaging/FlatWalk.h"

zv_byte_order ZV_HostByteOrder()
{
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
	return ZV_BIG_ENDIAN;
#else
	return ZV_LITTLE_ENDIAN;
#endif
}

status_t ZV_DetectByteOrder(const void* block, size_t size, zv_order_detection* result)
{
	if (block == nullptr || result == nullptr)
		return B_BAD_VALUE;

	const uint8* bytes = static_cast<const uint8*>(block);
	zvkit::internal::FlatWalk walk;
	walk.nested = true;
	walk.exact = true;
	const bool host = zvkit::internal::CheckFlatBlock(bytes, size, walk, nullptr, nullptr);
	walk.swapped = true;
	const bool other = zvkit::internal::CheckFlatBlock(bytes, size, walk, nullptr, nullptr);

	const bool hostIsLittle = ZV_HostByteOrder() == ZV_LITTLE_ENDIAN;
	if (host && other)
		*result = ZV_ORDER_AMBIGUOUS;
	else if (host)
		*result = hostIsLittle ? ZV_ORDER_LITTLE : ZV_ORDER_BIG;
	else if (other)
		*result = hostIsLittle ? ZV_ORDER_BIG : ZV_ORDER_LITTLE;
	else
		*result = ZV_ORDER_NEITHER;
	return B_OK;
}
