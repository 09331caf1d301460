// ServiceProcess: the embedded speech service (examples/service/speech_service.py)
// run as a child process for a host application. start() spawns it and waits
// for its READY line; stop() (or the destructor) closes its standard input,
// which ends it, and reaps it. Used from one thread.
#ifndef ORV_EXAMPLES_HOST_SERVICE_PROCESS_H
#define ORV_EXAMPLES_HOST_SERVICE_PROCESS_H

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

extern char** environ;

namespace orv_host {

class ServiceProcess {
 public:
  ~ServiceProcess() { stop(); }

  // python: the interpreter; script: the service; certDir: where it makes its
  // certificate; extraArgs: more of the service's arguments. False with error
  // set when it did not come up in waitMs.
  bool start(const std::string& python, const std::string& script, const std::string& certDir,
             int waitMs, std::string& error, const std::vector<std::string>& extraArgs = {}) {
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0) {
      error = "pipe failed";
      return false;
    }
    if (pipe2(out, O_CLOEXEC) != 0) {
      close(in[0]);
      close(in[1]);
      error = "pipe failed";
      return false;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    std::vector<std::string> args = {python, script, "--cert-dir", certDir};
    args.insert(args.end(), extraArgs.begin(), extraArgs.end());
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    int spawned = posix_spawnp(&m_pid, python.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    m_stdin = in[1];
    if (spawned != 0) {
      m_pid = -1;
      close(out[0]);
      error = "cannot start " + python + ": " + strerror(spawned);
      return false;
    }
    std::string line;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs);
    while (line.find('\n') == std::string::npos) {
      long long left = std::chrono::duration_cast<std::chrono::milliseconds>(
                           deadline - std::chrono::steady_clock::now())
                           .count();
      if (left <= 0) break;
      pollfd p{out[0], POLLIN, 0};
      if (poll(&p, 1, static_cast<int>(left)) <= 0) continue;
      char buffer[256];
      ssize_t n = read(out[0], buffer, sizeof(buffer));
      if (n <= 0) break;
      line.append(buffer, static_cast<size_t>(n));
    }
    close(out[0]);
    if (sscanf(line.c_str(), "READY http=%d https=%d pinned=%d", &m_port, &m_httpsPort, &m_pinnedPort) != 3) {
      error = "the speech service (" + script + ") did not come up";
      stop();
      return false;
    }
    return true;
  }

  void stop() {
    if (m_stdin >= 0) close(m_stdin);
    m_stdin = -1;
    if (m_pid > 0) {
      kill(m_pid, SIGTERM);
      int status = 0;
      waitpid(m_pid, &status, 0);
    }
    m_pid = -1;
  }

  int port() const { return m_port; }
  int httpsPort() const { return m_httpsPort; }
  // The port given with --pinned-port when the service could bind it, else -1.
  int pinnedPort() const { return m_pinnedPort; }
  pid_t pid() const { return m_pid; }

 private:
  pid_t m_pid = -1;
  int m_stdin = -1;
  int m_port = -1;
  int m_httpsPort = -1;
  int m_pinnedPort = -1;
};

}  // namespace orv_host

#endif  // ORV_EXAMPLES_HOST_SERVICE_PROCESS_H
