// HexBlock.h: reads the hand-written blocks of tests/data/flat.
//
// A .hex file holds bytes as pairs of hexadecimal digits separated by
// blanks; a '#' starts a comment that runs to the end of the line.
#ifndef ZVKIT_HEX_BLOCK_H
#define ZVKIT_HEX_BLOCK_H

#include <SupportDefs.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace zvtest {

inline std::string FlatDataPath(const char* file)
{
	return std::string(ZVKIT_SOURCE_DIR) + "/tests/data/flat/" + file;
}

// The bytes of a .hex file; empty (and *ok false) when it cannot be read.
inline std::vector<uint8> ReadHexBlock(const char* file, bool* ok = nullptr)
{
	std::ifstream in(FlatDataPath(file));
	std::vector<uint8> bytes;
	std::string line;
	bool good = static_cast<bool>(in);
	while (good && std::getline(in, line)) {
		const size_t comment = line.find('#');
		if (comment != std::string::npos)
			line.erase(comment);
		std::istringstream words(line);
		std::string word;
		while (words >> word) {
			char* end = nullptr;
			const unsigned long value = strtoul(word.c_str(), &end, 16);
			if (word.size() != 2 || *end != '\0' || value > 0xFF) {
				good = false;
				break;
			}
			bytes.push_back(static_cast<uint8>(value));
		}
	}
	if (ok != nullptr)
		*ok = good;
	return good ? bytes : std::vector<uint8>();
}

} // namespace zvtest

#endif // ZVKIT_HEX_BLOCK_H
