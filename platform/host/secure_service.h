// The secure service of the host platform behind requests 260 (encipher) and 261 (decipher).
#pragma once

namespace qvhost {

// Rewrites the text in `buffer` (at most `input_length` bytes, NUL-terminated within them) in
// place, the result NUL-terminated within `capacity`. 0 on success.
int SecureRequest(int cmd, char* buffer, int input_length, int capacity);

}  // namespace qvhost
