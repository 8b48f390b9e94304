// SPDX-License-Identifier: GPL-2.0-or-later
// Runs a fuzz target once over every file of the folders it is given: the corpus as a test, without a fuzzer.
#include "fuzz.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <vector>

int main(int argc, char **argv)
{
	std::set<std::filesystem::path> files;
	for (int i = 1; i < argc; ++i) {
		for (const auto &entry : std::filesystem::directory_iterator(argv[i])) {
			files.insert(entry.path());
		}
	}
	if (files.empty()) {
		std::fprintf(stderr, "There is nothing to replay.\n");
		return 1;
	}
	LLVMFuzzerInitialize(&argc, &argv);
	for (const std::filesystem::path &file : files) {
		std::ifstream stream(file, std::ios::binary);
		const std::vector<char> bytes(std::istreambuf_iterator<char>(stream), {});
		// Said first: it is the last line when the target ends the program.
		std::printf("%s (%zu bytes)\n", file.c_str(), bytes.size());
		std::fflush(stdout);
		LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
	}
	std::printf("%zu inputs replayed\n", files.size());
	return 0;
}
