// Running CalculiX: each job in the work directory, its messages to JOB.log, the jobs at once.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "ccx2krx.h"

namespace ccx {

namespace {

const char *calculix_program() {
  const char *name = std::getenv("CCX");
  return name && *name ? name : "ccx";
}

// The child reports a failed exec through a close-on-exec pipe: an empty read means ccx started.
pid_t start_job(const std::string &dir, const std::string &job, int &report) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return -1;
  pid_t pid = fork();
  if (pid < 0) {
    close(fds[0]);
    close(fds[1]);
    return -1;
  }
  if (pid == 0) {
    close(fds[0]);
    int err = 0;
    int log = -1;
    if (chdir(dir.c_str()) != 0 ||
        (log = open((job + ".log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644)) < 0) {
      err = errno;
    } else {
      dup2(log, 1);
      dup2(log, 2);
      const char *program = calculix_program();
      execlp(program, program, "-i", job.c_str(), static_cast<char *>(nullptr));
      err = errno;
    }
    if (write(fds[1], &err, sizeof err) < 0) _exit(127);
    _exit(127);
  }
  close(fds[1]);
  report = fds[0];
  return pid;
}

// CalculiX's own error lines (each *ERROR line and the lines that continue it), shown as they are
// up to a screenful; the rest are counted.
int show_errors(const std::string &log) {
  const int kShown = 20;
  std::ifstream in(log);
  std::string line;
  int lines = 0, errors = 0;
  bool in_error = false;
  while (std::getline(in, line)) {
    line.erase(line.find_last_not_of(" \r") + 1);
    if (line.find("*ERROR") != std::string::npos) {
      in_error = true;
      ++errors;
    } else if (line.empty() || line.find("*WARNING") != std::string::npos) {
      in_error = false;
    }
    if (in_error && lines < kShown) {
      std::fprintf(stderr, "ccx2krx:   %s\n", line.c_str());
      ++lines;
    }
  }
  if (lines == kShown)
    std::fprintf(stderr, "ccx2krx:   ... (%d *ERROR lines in all; --keep DIR keeps %s)\n", errors,
                 log.substr(log.rfind('/') + 1).c_str());
  return errors;
}

// Waits for the job; speak is false once another job has failed, since both jobs read the same
// model and their errors repeat.
bool finish_job(const std::string &dir, const std::string &job, pid_t pid, int report, bool speak) {
  int err = 0;
  ssize_t got = read(report, &err, sizeof err);
  close(report);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (!speak) return false;
  if (got == static_cast<ssize_t>(sizeof err))
    return failed("cannot run CalculiX (%s): %s; set CCX to its executable", calculix_program(),
                  std::strerror(err));
  std::string log = dir + "/" + job + ".log";
  bool bad_exit = !WIFEXITED(status) || WEXITSTATUS(status) != 0;
  std::ifstream probe(log);
  std::string text((std::istreambuf_iterator<char>(probe)), std::istreambuf_iterator<char>());
  if (text.find("*ERROR") == std::string::npos && !bad_exit) return true;
  std::fprintf(stderr, "ccx2krx: CalculiX refused %s.inp (job %s):\n", job.c_str(), job.c_str());
  if (show_errors(log) == 0)
    std::fprintf(stderr, "ccx2krx:   it ended with status %d and no *ERROR line; see %s\n",
                 WIFEXITED(status) ? WEXITSTATUS(status) : -1, log.c_str());
  return false;
}

}  // namespace

bool run_calculix(const std::string &dir, const std::vector<std::string> &jobs, double &seconds) {
  auto begin = std::chrono::steady_clock::now();
  std::vector<pid_t> pids;
  std::vector<int> reports;
  bool ok = true;
  for (const std::string &job : jobs) {
    int report = -1;
    pid_t pid = start_job(dir, job, report);
    if (pid < 0) {
      ok = failed("cannot start CalculiX: %s", std::strerror(errno));
      break;
    }
    pids.push_back(pid);
    reports.push_back(report);
  }
  for (size_t k = 0; k < pids.size(); ++k)
    if (!finish_job(dir, jobs[k], pids[k], reports[k], ok)) ok = false;
  seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  return ok;
}

}  // namespace ccx
