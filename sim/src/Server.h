// The launcher's side of its process tree: a Unix socket on which every
// process of the tree (through Frontend) opens and drives the nodes of the
// cameras this process hosts, and tq-uvc-sim's commands reach it from outside.
// One thread accepts, one thread serves each connection; a connection that
// ends closes the nodes it opened.
#pragma once

#include <string>

namespace tqsim::server {

// Starts serving at path (created; removed again by stop). False with the
// reason in *error.
bool start(const std::string& path, std::string* error);
// Stops accepting, ends every connection and joins the threads.
void stop();

}  // namespace tqsim::server
