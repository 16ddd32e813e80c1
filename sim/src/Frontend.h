// The emulated nodes as one process sees them: which of its descriptors are
// emulated nodes, and the calls on them, served by the Emulation in this
// process when it hosts the cameras, else by the launcher over its socket.
// The interposers in Interpose.cpp and V4l2Interpose.cpp call these; each
// returns false when the path or descriptor is not an emulated node.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <tqsim/Sim.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tqsim::front {

// True while this process holds any emulated descriptor or mapping: the cheap
// test before a table lookup on every read, write, poll and mmap.
bool anyOpen();
bool anyMapped();

bool open(const char* path, int flags, int& result);
bool close(int fd, int& result);
// After a successful dup of from onto to (dup, dup2, dup3, F_DUPFD).
void duplicated(int from, int to);
// Before the program closes fd: if it is our own socket, forget it.
void released(int fd);
bool ioctl(int fd, unsigned long request, void* arg, int& result);
bool mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset, void*& result);
// Always lets the caller unmap; true when it was one of ours.
bool forgetMapping(void* addr);
bool read(int fd, void* buffer, size_t count, ssize_t& result);
bool write(int fd, const void* buffer, size_t count, ssize_t& result);
bool isNode(int fd);
// poll over any mix of descriptors; timeoutMs < 0 waits for ever.
int poll(pollfd* fds, nfds_t count, int timeoutMs, const sigset_t* mask);
bool stat(const char* path, struct stat& out);
bool fstat(int fd, struct stat& out);

// A command for the launcher (plug, unplug, replug, fault, status), sent to
// the socket at address; returns the exit status, the launcher's text in out.
int control(const std::string& address, const std::vector<std::string>& words, std::string& out);

// What a test can see about one camera in this process.
int openVideoNodes(CameraId id);
size_t videoMappings(CameraId id);

}  // namespace tqsim::front
