#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include "hid/DecodeError.h"

namespace {

struct CodeText {
  int code;
  const char* text;
};

const CodeText kTexts[] = {
    {1, "Error: VX_UVC_STATUS_UNKNOWN_ERROR"},
    {2, "Error: VX_UVC_STATUS_BAD_ARGUMENT"},
    {3, "Error: VX_UVC_STATUS_INVALID_CMD_ID"},
    {4, "Error: VX_UVC_STATUS_NOT_IMPLEMENTED"},
    {5, "Error: VX_UVC_STATUS_NOT_AVAILABLE"},
    {6, "Error: VX_UVC_STATUS_INVALID_DATA_BLOCK"},
    {7, "Error: VX_UVC_STATUS_INVALID_CHUNK_ID"},
    {8, "Error: VX_UVC_STATUS_DATA_BLOCK_TOO_LARGE"},
    {9, "Error: VX_UVC_STATUS_MISSSING_DATA_CHUNKS"},
    {10, "Error: VX_UVC_STATUS_SENSOR_DISABLED"},
    {11, "Error: VX_UVC_STATUS_USB_RD_ERR"},
    {12, "Error: VX_UVC_STATUS_USB_WR_ERR"},
    {13, "Error: VX_UVC_STATUS_FLASH_RD_ERR"},
    {14, "Error: VX_UVC_STATUS_FLASH_WR_ERR"},
    {15, "Error: VX_UVC_STATUS_OUT_OF_RANGE"},
    {16, "Error: VX_UVC_STATUS_HW_ERR"},
    {17, "Error: VX_UVC_STATUS_NOT_IF_STREAMING_ERROR"},
    {18, "Error: RX2_STATUS_HW_ERR_FPGA"},
    {-1, "Error: HID_ERROR_TIMEOUT"},
    {-2, "Error: HID_ERROR_PROTOCOL_WRONG_ID"},
    {-3, "Error: HID_ERROR_PROTOCOL_UNDEFINED"},
    {-4, "Error: unknown error code"},
    {19, "Error: unknown error code"},
    {255, "Error: unknown error code"},
    {-101, "Error: unknown error code"},
};

TEST(DecodeError, EveryCodeHasItsText) {
  for (const auto& c : kTexts) EXPECT_EQ(DecodeError(c.code), c.text) << "code " << c.code;
}

TEST(DecodeError, ZeroRepeatsThePreviousText) {
  DecodeError(5);
  EXPECT_EQ(DecodeError(0), "Error: VX_UVC_STATUS_NOT_AVAILABLE");
  DecodeError(-1);
  EXPECT_EQ(DecodeError(0), "Error: HID_ERROR_TIMEOUT");
}

TEST(DecodeError, ConcurrentCallersGetWholeTexts) {
  std::set<std::string> valid;
  for (const auto& c : kTexts) valid.insert(c.text);
  std::vector<std::thread> threads;
  threads.reserve(4);
  std::vector<int> bad(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &valid, &bad] {
      for (int i = 0; i < 2000; ++i) {
        const auto& c = kTexts[(t * 7 + i) % (sizeof kTexts / sizeof kTexts[0])];
        if (valid.count(DecodeError(c.code)) == 0) ++bad[t];
      }
    });
  }
  for (auto& th : threads) th.join();
  for (int t = 0; t < 4; ++t) EXPECT_EQ(bad[t], 0);
}

}  // namespace
