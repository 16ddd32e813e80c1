// The monitor loop in-process: cameras plugged and unplugged while it runs
// show up as arrivals and departures with their handles.
#include <tqsim/Sim.h>

#include <mutex>
#include <streambuf>
#include <thread>

#include "Commands.h"
#include "SimTestUtil.h"
#include "TestUtil.h"

namespace {

using tqtest::plug;

// An output stream the monitor thread writes and the test reads.
class SharedText : public std::streambuf {
 public:
  std::string text() {
    std::lock_guard<std::mutex> guard(mutex_);
    return text_;
  }

 protected:
  int overflow(int c) override {
    if (c == traits_type::eof()) return 0;
    std::lock_guard<std::mutex> guard(mutex_);
    text_ += static_cast<char>(c);
    return c;
  }
  std::streamsize xsputn(const char* s, std::streamsize n) override {
    std::lock_guard<std::mutex> guard(mutex_);
    text_.append(s, static_cast<size_t>(n));
    return n;
  }

 private:
  std::mutex mutex_;
  std::string text_;
};

class Monitor : public simtest::SimTest {
 protected:
  bool waitFor(const std::string& part) {
    return tqtest::waitUntil([&] { return buffer_.text().find(part) != std::string::npos; });
  }
  SharedText buffer_;
};

TEST_F(Monitor, ReportsArrivalsAndDeparturesWithHandles) {
  const tqsim::CameraId firstId = plug();
  std::ostream out(&buffer_);
  tool::stopRequested() = false;
  std::thread monitor([&] { tool::runMonitor(out, 50); });

  EXPECT_TRUE(waitFor("present  handle 1  serial CAM-SN-0042")) << buffer_.text();
  plug(tqtest::cameraOn(1, 2, "CAM-SN-0043"));
  EXPECT_TRUE(waitFor("arrived  handle 2  serial CAM-SN-0043")) << buffer_.text();
  tqsim::unplugCamera(firstId);
  EXPECT_TRUE(waitFor("left     handle 1  serial CAM-SN-0042")) << buffer_.text();
  // A camera coming back keeps its handle.
  tqsim::replugCamera(firstId);
  EXPECT_TRUE(waitFor("arrived  handle 1  serial CAM-SN-0042")) << buffer_.text();

  tool::stopRequested() = true;
  monitor.join();
  tool::stopRequested() = false;
}

}  // namespace
