// The byte substitution files are scrambled with.
#pragma once

#include <string>

namespace Util {

// The byte substitution behind EncryptFile/DecryptFile: encTable is a permutation
// of 0..255 and decTable its inverse.
extern const unsigned char encTable[256];
extern const unsigned char decTable[256];

// Scramble (unscramble) a whole file into outputPath, which may be inputPath.
// 0 done; -1 failed before any output was made (a write failing half-way is not
// noticed). DecryptFile writes whatever it could read, even when that is less
// than the file's size; EncryptFile fails then.
int EncryptFile(const std::string& inputPath, const std::string& outputPath);
int DecryptFile(const std::string& inputPath, const std::string& outputPath);

}  // namespace Util
