// zvmsg: looks into, checks and converts flattened ZvMessage blocks.
//
// Exit status: 0 success; 1 a file is not a valid block (or a JSON document
// does not describe one); 2 the command line is wrong; 3 a file cannot be
// read or written. With several files every file is handled and the status
// is the largest one met.
#include "FlatJson.h"
#include "messaging/FlatWalk.h"

#include <ZvByteOrder.h>
#include <ZvMessage.h>

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using zvkit::internal::FlatProblem;
using zvkit::internal::FlatWalk;
using zvkit::internal::Json;
using Bytes = std::vector<uint8>;

enum
{
	kExitOk = 0,
	kExitInvalid = 1,
	kExitUsage = 2,
	kExitIo = 3
};

const char kUsage[] = "usage: zvmsg COMMAND [OPTIONS] FILE...\n"
                      "\n"
                      "Looks into, checks and converts flattened ZvMessage blocks (the bytes that\n"
                      "ZvMessage::Flatten writes). FILE - reads standard input.\n"
                      "\n"
                      "commands:\n"
                      "  dump [--json] [--from ORDER] FILE...\n"
                      "      print each message as ZvMessage::PrintToStream does, or as JSON\n"
                      "      (several files with --json: an array of documents)\n"
                      "  check [--from ORDER] FILE...\n"
                      "      validate each block; name the byte offset and reason of the first\n"
                      "      error\n"
                      "  convert --to big|little [--from ORDER] FILE -o OUT\n"
                      "      write the block in the other byte order (OUT - is standard output)\n"
                      "  from-json [--to ORDER] FILE [-o OUT]\n"
                      "      build a block from the JSON that dump --json writes, in the\n"
                      "      document's byte order unless --to says otherwise (default OUT: -)\n"
                      "  help\n"
                      "      this text\n"
                      "\n"
                      "ORDER is big, little or host. Without --from the byte order of each block\n"
                      "is detected; an empty message reads validly both ways and is read in the\n"
                      "host's order.\n"
                      "\n"
                      "exit status: 0 success, 1 invalid block or document, 2 wrong command line,\n"
                      "3 a file cannot be read or written.\n";

int Usage(const std::string& problem)
{
	fprintf(stderr, "zvmsg: %s\nTry 'zvmsg --help'.\n", problem.c_str());
	return kExitUsage;
}

const char* OrderName(zv_byte_order order)
{
	if (order == ZV_HOST_ENDIAN)
		order = ZV_HostByteOrder();
	return order == ZV_BIG_ENDIAN ? "big-endian" : "little-endian";
}

bool ParseOrder(const std::string& text, zv_byte_order* order)
{
	if (text == "big")
		*order = ZV_BIG_ENDIAN;
	else if (text == "little")
		*order = ZV_LITTLE_ENDIAN;
	else if (text == "host")
		*order = ZV_HostByteOrder();
	else
		return false;
	return true;
}

std::string Shown(const std::string& path)
{
	return path == "-" ? "(standard input)" : path;
}

bool ReadInput(const std::string& path, Bytes* out)
{
	FILE* file = path == "-" ? stdin : fopen(path.c_str(), "rb");
	if (file == nullptr) {
		fprintf(stderr, "zvmsg: %s: cannot open: %s\n", path.c_str(), strerror(errno));
		return false;
	}
	out->clear();
	uint8 chunk[65536];
	size_t got;
	while ((got = fread(chunk, 1, sizeof(chunk), file)) > 0)
		out->insert(out->end(), chunk, chunk + got);
	const bool failed = ferror(file) != 0;
	if (file != stdin)
		fclose(file);
	if (failed) {
		fprintf(stderr, "zvmsg: %s: read error\n", Shown(path).c_str());
		return false;
	}
	return true;
}

bool WriteOutput(const std::string& path, const uint8* data, size_t size)
{
	FILE* file = path == "-" ? stdout : fopen(path.c_str(), "wb");
	if (file == nullptr) {
		fprintf(stderr, "zvmsg: %s: cannot create: %s\n", path.c_str(), strerror(errno));
		return false;
	}
	bool good = fwrite(data, 1, size, file) == size;
	good = (file == stdout ? fflush(file) : fclose(file)) == 0 && good;
	if (!good)
		fprintf(stderr, "zvmsg: %s: write error\n", path.c_str());
	return good;
}

// What is known of one block after checking it.
struct Examined
{
	bool valid = false;
	bool ambiguous = false;
	zv_byte_order order = ZV_LITTLE_ENDIAN;
	FlatProblem problem;
};

bool WalkIn(const Bytes& block, zv_byte_order order, FlatProblem* problem)
{
	FlatWalk walk;
	walk.swapped = order != ZV_HostByteOrder();
	walk.nested = true;
	walk.exact = true;
	return zvkit::internal::CheckFlatBlock(block.data(), block.size(), walk, nullptr, problem);
}

// The item count of the block's header read in order (0 for a short block).
uint32 CountIn(const Bytes& block, zv_byte_order order)
{
	if (block.size() < 12)
		return 0;
	uint32 count;
	memcpy(&count, block.data() + 8, 4);
	return order == ZV_HostByteOrder() ? count : __builtin_bswap32(count);
}

// Checks block in the forced order, or finds the order it reads in. When
// it reads in neither, the problem reported is the one met further into the
// block; on a tie, the one of the order whose item count is smaller (the
// count of a real message read in the wrong order is enormous).
Examined Examine(const Bytes& block, const zv_byte_order* forced)
{
	Examined result;
	if (forced != nullptr) {
		result.order = *forced;
		result.valid = WalkIn(block, *forced, &result.problem);
		return result;
	}
	const zv_byte_order host = ZV_HostByteOrder();
	const zv_byte_order other = host == ZV_LITTLE_ENDIAN ? ZV_BIG_ENDIAN : ZV_LITTLE_ENDIAN;
	FlatProblem hostProblem;
	FlatProblem otherProblem;
	const bool hostValid = WalkIn(block, host, &hostProblem);
	const bool otherValid = WalkIn(block, other, &otherProblem);
	result.valid = hostValid || otherValid;
	result.ambiguous = hostValid && otherValid;
	if (hostValid || !otherValid) {
		result.order = host;
		result.problem = hostProblem;
	} else {
		result.order = other;
	}
	const bool otherCountSmaller = static_cast<int32>(CountIn(block, other)) >= 0 &&
	                               CountIn(block, other) < CountIn(block, host);
	if (!result.valid && (otherProblem.offset > hostProblem.offset ||
	                      (otherProblem.offset == hostProblem.offset && otherCountSmaller))) {
		result.order = other;
		result.problem = otherProblem;
	}
	return result;
}

void ReportInvalid(const std::string& path, const Examined& examined)
{
	fprintf(stderr, "zvmsg: %s: invalid at byte %zu: %s (read as %s)\n", Shown(path).c_str(),
	        examined.problem.offset, examined.problem.reason, OrderName(examined.order));
}

void NoteAmbiguous(const std::string& path, const Examined& examined)
{
	fprintf(stderr,
	        "zvmsg: %s: an empty message reads validly in both byte orders; read as %s "
	        "(use --from to choose)\n",
	        Shown(path).c_str(), OrderName(examined.order));
}

struct Options
{
	std::vector<std::string> files;
	bool json = false;
	bool hasFrom = false;
	zv_byte_order from = ZV_LITTLE_ENDIAN;
	bool hasTo = false;
	zv_byte_order to = ZV_LITTLE_ENDIAN;
	std::string output;
	bool help = false;
};

// Parses the options of command; returns kExitOk or the usage status.
int ParseOptions(const std::string& command, int argc, char** argv, Options* options)
{
	bool optionsEnd = false;
	for (int i = 0; i < argc; i++) {
		const std::string arg = argv[i];
		auto value = [&](std::string* out) {
			if (i + 1 >= argc)
				return false;
			*out = argv[++i];
			return true;
		};
		if (optionsEnd || arg == "-" || arg.empty() || arg[0] != '-') {
			options->files.push_back(arg);
		} else if (arg == "--") {
			optionsEnd = true;
		} else if (arg == "--help" || arg == "-h") {
			options->help = true;
		} else if (arg == "--json" && command == "dump") {
			options->json = true;
		} else if (arg == "--from" && command != "from-json") {
			std::string text;
			if (!value(&text) || !ParseOrder(text, &options->from))
				return Usage(command + ": --from takes big, little or host");
			options->hasFrom = true;
		} else if (arg == "--to" && (command == "convert" || command == "from-json")) {
			std::string text;
			if (!value(&text) || !ParseOrder(text, &options->to))
				return Usage(command + ": --to takes big, little or host");
			options->hasTo = true;
		} else if (arg == "-o" && (command == "convert" || command == "from-json")) {
			if (!value(&options->output))
				return Usage(command + ": -o takes a file name");
		} else {
			return Usage(command + ": unknown option '" + arg + "'");
		}
	}
	return kExitOk;
}

// Reads path and examines its block; false (with *status raised and the
// reason reported) when it cannot be read or is not a valid block.
bool ReadValid(const std::string& path, const Options& options, Bytes* block, Examined* examined,
               int* status)
{
	if (!ReadInput(path, block)) {
		*status = std::max(*status, int(kExitIo));
		return false;
	}
	*examined = Examine(*block, options.hasFrom ? &options.from : nullptr);
	if (!examined->valid) {
		ReportInvalid(path, *examined);
		*status = std::max(*status, int(kExitInvalid));
		return false;
	}
	return true;
}

int Dump(const Options& options)
{
	int status = kExitOk;
	Json documents = Json::array();
	for (const std::string& path : options.files) {
		Bytes block;
		Examined examined;
		if (!ReadValid(path, options, &block, &examined, &status))
			continue;
		if (examined.ambiguous)
			NoteAmbiguous(path, examined);
		ZvMessage message(0);
		if (message.Unflatten(block.data(), block.size(), examined.order) != B_OK) {
			fprintf(stderr, "zvmsg: %s: the block cannot be read\n", Shown(path).c_str());
			status = std::max(status, int(kExitInvalid));
			continue;
		}
		if (options.json) {
			documents.push_back(zvkit::internal::MessageToJson(message, examined.order));
		} else {
			if (options.files.size() > 1)
				printf("==> %s <==\n", Shown(path).c_str());
			message.PrintToStream();
			fflush(stdout);
		}
	}
	if (options.json && !documents.empty()) {
		const Json& out = options.files.size() == 1 ? documents[0] : documents;
		printf("%s\n", out.dump(2).c_str());
	}
	return status;
}

int Check(const Options& options)
{
	int status = kExitOk;
	for (const std::string& path : options.files) {
		Bytes block;
		Examined examined;
		if (!ReadValid(path, options, &block, &examined, &status))
			continue;
		const uint32 count = CountIn(block, examined.order);
		printf("%s: ok, %s, %d fields, %zu bytes%s\n", Shown(path).c_str(),
		       examined.ambiguous ? "either byte order" : OrderName(examined.order),
		       static_cast<int32>(count) < 0 ? 0 : static_cast<int32>(count), block.size(),
		       examined.ambiguous ? " (an empty message)" : "");
	}
	return status;
}

int Convert(const Options& options)
{
	if (!options.hasTo)
		return Usage("convert: --to big or --to little is required");
	if (options.files.size() != 1)
		return Usage("convert: exactly one input FILE is required");
	if (options.output.empty())
		return Usage("convert: -o OUT is required");
	const std::string& path = options.files[0];
	Bytes block;
	if (!ReadInput(path, &block))
		return kExitIo;
	const Examined examined = Examine(block, options.hasFrom ? &options.from : nullptr);
	if (!examined.valid) {
		ReportInvalid(path, examined);
		return kExitInvalid;
	}
	if (examined.ambiguous)
		NoteAmbiguous(path, examined);
	if (examined.order != options.to) {
		FlatWalk walk;
		walk.swapped = examined.order != ZV_HostByteOrder();
		walk.convert = true;
		FlatProblem problem;
		if (!zvkit::internal::WalkFlatBlock(block.data(), block.size(), walk, nullptr, &problem)) {
			fprintf(stderr, "zvmsg: %s: cannot convert at byte %zu: %s\n", Shown(path).c_str(),
			        problem.offset, problem.reason);
			return kExitInvalid;
		}
	}
	return WriteOutput(options.output, block.data(), block.size()) ? kExitOk : kExitIo;
}

int FromJson(const Options& options)
{
	if (options.files.size() != 1)
		return Usage("from-json: exactly one input FILE is required");
	const std::string& path = options.files[0];
	Bytes text;
	if (!ReadInput(path, &text))
		return kExitIo;
	const Json document = Json::parse(text.begin(), text.end(), nullptr, false);
	if (document.is_discarded()) {
		fprintf(stderr, "zvmsg: %s: not a JSON document\n", Shown(path).c_str());
		return kExitInvalid;
	}
	if (document.is_array()) {
		fprintf(stderr,
		        "zvmsg: %s: an array of documents; from-json builds one message from one "
		        "document\n",
		        Shown(path).c_str());
		return kExitInvalid;
	}
	ZvMessage message(0);
	zv_byte_order order;
	std::string error;
	if (!zvkit::internal::JsonToMessage(document, &message, &order, &error)) {
		fprintf(stderr, "zvmsg: %s: %s\n", Shown(path).c_str(), error.c_str());
		return kExitInvalid;
	}
	if (options.hasTo)
		order = options.to;
	Bytes block(message.FlattenedSize());
	int32 written = 0;
	if (message.Flatten(block.data(), order, &written) != B_OK) {
		fprintf(stderr, "zvmsg: %s: a nested message cannot be written %s\n", Shown(path).c_str(),
		        OrderName(order));
		return kExitInvalid;
	}
	return WriteOutput(options.output.empty() ? "-" : options.output, block.data(), written)
	           ? kExitOk
	           : kExitIo;
}

} // namespace

int main(int argc, char** argv)
{
	if (argc < 2)
		return Usage("a command is required");
	const std::string command = argv[1];
	if (command == "--help" || command == "-h" || command == "help") {
		fputs(kUsage, stdout);
		return kExitOk;
	}
	if (command != "dump" && command != "check" && command != "convert" && command != "from-json") {
		return Usage("unknown command '" + command + "'");
	}
	Options options;
	const int parsed = ParseOptions(command, argc - 2, argv + 2, &options);
	if (parsed != kExitOk)
		return parsed;
	if (options.help) {
		fputs(kUsage, stdout);
		return kExitOk;
	}
	if (options.files.empty())
		return Usage(command + ": no input FILE (use - for standard input)");

	if (command == "dump")
		return Dump(options);
	if (command == "check")
		return Check(options);
	if (command == "convert")
		return Convert(options);
	return FromJson(options);
}
