#include "state/cipher_record.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <new>

namespace cpa {
namespace {

// A record's keys do not outlive it in the memory it leaves behind.
TEST(CipherRecord, ReleasedRecordLeavesNoKeyBytes) {
  alignas(kestrix_ce_cipher_list_t) unsigned char storage[sizeof(kestrix_ce_cipher_list_t)];
  auto* record = new (storage) kestrix_ce_cipher_list_t();
  for (kestrix_key_val_t* key : {&record->esp_key_info, &record->esp_mac_key_info, &record->ah_key_info})
    std::fill(std::begin(key->data), std::end(key->data), 0xA5);
  record->~kestrix_ce_cipher_list_t();
  EXPECT_EQ(std::count(std::begin(storage), std::end(storage), 0xA5), 0);
}

}  // namespace
}  // namespace cpa
