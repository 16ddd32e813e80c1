// udevadm for the emulated cameras: "info -q path" and "info -a" over the state
// file that the hosting process keeps (path in TQSIM_STATE_FILE). Output and
// error texts follow the real tool, so that callers parsing them see the same.
#include <getopt.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "StateFile.h"
#include "UdevWalk.h"

namespace {

int64_t nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

int unknownDevice(const std::string& name) {
  std::fprintf(stderr, "Unknown device \"%s\": No such device\n", name.c_str());
  return 1;
}

void usage() {
  std::printf(
      "udevadm info [OPTIONS] [DEVPATH|FILE]\n\n"
      "Query sysfs or the udev database.\n\n"
      "  -h --help                   Print this message\n"
      "  -q --query=TYPE             Query device information:\n"
      "       path                     sysfs device path\n"
      "  -p --path=SYSPATH           sysfs device path used for query or attribute walk\n"
      "  -n --name=NAME              Node or symlink name used for query or attribute walk\n"
      "  -a --attribute-walk         Print all key matches walking along the chain\n"
      "                              of parent devices\n\n"
      "This udevadm serves the emulated cameras of tq-uvc-sim only.\n");
}

int info(int argc, char** argv) {
  static const option options[] = {
      {"query", required_argument, nullptr, 'q'}, {"path", required_argument, nullptr, 'p'},
      {"name", required_argument, nullptr, 'n'},  {"attribute-walk", no_argument, nullptr, 'a'},
      {"help", no_argument, nullptr, 'h'},        {nullptr, 0, nullptr, 0},
  };
  std::string query;
  std::string name;
  bool walk = false;
  bool byName = false;
  int c = 0;
  optind = 1;
  while ((c = getopt_long(argc, argv, "q:p:n:ah", options, nullptr)) >= 0) {
    switch (c) {
      case 'q':
        query = optarg;
        break;
      case 'p':
        name = optarg;
        byName = false;
        break;
      case 'n':
        name = optarg;
        byName = true;
        break;
      case 'a':
        walk = true;
        break;
      case 'h':
        usage();
        return 0;
      default:
        return 1;  // getopt printed the reason
    }
  }
  if (optind < argc && name.empty()) {
    name = argv[optind];
    byName = name.rfind("/sys/", 0) != 0 && name.rfind("/devices/", 0) != 0;
  }
  if (name.empty()) {
    std::fprintf(stderr, "A device name or path is required\n");
    return 1;
  }
  if (!walk && query.empty()) {
    std::fprintf(stderr, "Query type is required\n");
    return 1;
  }
  if (!walk && query != "path") {
    std::fprintf(stderr, "Query type '%s' is not supported by the emulated udevadm\n", query.c_str());
    return 1;
  }

  const char* statePath = std::getenv(tqsim::kEnvStateFile);
  tqsim::State state;
  std::string error;
  if (statePath == nullptr || !tqsim::readStateFile(statePath, state, &error)) return unknownDevice(name);

  tqsim::FoundNode found;
  const bool known =
      byName ? tqsim::findByDeviceName(state, name, found) : tqsim::findByDevicePath(state, name, found);
  if (!known) return unknownDevice(name);
  const tqsim::StateCamera& camera = *found.camera;
  if (camera.udevFails) return 1;
  if (walk) {
    if (camera.udevGarbage) {
      std::fputs("\x1b[0;1m?? udev database garbled ??\n7a3d0203\n  [device busy]\n", stdout);
      return 0;
    }
    std::fputs(tqsim::attributeWalk(state, camera, found.node, nowMs()).c_str(), stdout);
    return 0;
  }
  std::printf("%s\n", tqsim::devicePath(camera, found.node).c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "udevadm: missing command\n");
    return 2;
  }
  if (std::strcmp(argv[1], "info") == 0) return info(argc - 1, argv + 1);
  if (std::strcmp(argv[1], "--version") == 0) {
    std::printf("252\n");
    return 0;
  }
  std::fprintf(stderr, "udevadm: the emulated udevadm knows only 'info'\n");
  return 2;
}
