// GraphicsDefs.h: the interface kit's colour record, rgb_color.
//
// Four one-byte channels, red, green, blue and alpha (255 opaque), kept by
// value.
#ifndef _GRAPHICS_DEFS_H
#define _GRAPHICS_DEFS_H

#include <SupportDefs.h>

typedef struct rgb_color
{
	uint8 red;
	uint8 green;
	uint8 blue;
	uint8 alpha;

#ifdef __cplusplus
	bool operator==(const rgb_color& other) const
	{
		return red == other.red && green == other.green && blue == other.blue &&
		       alpha == other.alpha;
	}

	bool operator!=(const rgb_color& other) const
	{
		return !(*this == other);
	}
#endif
} rgb_color;

#endif // _GRAPHICS_DEFS_H
