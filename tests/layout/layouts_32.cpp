// Compiled for a 32-bit target by the build: the static_asserts of these
// headers pin every size and offset, so this file only has to include them.
#include "state/cipher_record.h"
#include "wire/cipher_info.h"
#include "wire/xfrm_platform.h"
