// Running a piece of a test in a forked child, for changes to the process
// that must not reach the rest of the test program.
#ifndef QUARRY_TESTS_SUPPORT_CHILD_PROCESS_H
#define QUARRY_TESTS_SUPPORT_CHILD_PROCESS_H

#include <functional>
#include <string>

namespace quarry_test {

// What run_in_child returns when the child ended without reporting.
extern const char kChildDied[];

// Runs |body| in a forked child and returns the text it returned. The
// child leaves with _exit, so nothing of the parent's is torn down twice.
// Log lines the child writes carry the child's process id: check them
// inside |body|.
std::string run_in_child(const std::function<std::string()> &body);

// Gives the calling process a mount namespace of its own in which
// /etc/hosts reads |content|. Needs root; false when it cannot be done.
// Meant for a child of run_in_child.
bool use_private_hosts(const std::string &content);

}  // namespace quarry_test

#endif  // QUARRY_TESTS_SUPPORT_CHILD_PROCESS_H
