#include "check/foreign_keys.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "output/text.h"

namespace vorn::launch {
namespace {

/// Keys that other supervisors use for the same purpose.
struct ForeignKeys {
  std::string_view keys;  // normalized, with a space before and after each
  const char* advice;
};

// The keys of init systems, process managers and container tools.
constexpr ForeignKeys kNodeKeys[] = {
    {" command cmd exec execstart executable program entrypoint run ",
     "write the program in 'path' and its arguments in 'argv'"},
    {" args arguments argument parameters ",
     "write the arguments in 'argv', separated by spaces"},
    {" shell script ",
     "no shell is used: start '/bin/sh' or a script by 'path'"},
    {" env environ envs envvars variables setenv ",
     "write the variables as a mapping in 'environment'"},
    {" envfile environmentfile dotenv ",
     "write the variables in 'environment', or use '--env-file FILE' of "
     "vornrun"},
    {" user group uid gid username supplementarygroups ",
     "every node runs as the launcher's user: to change it, write 'path: "
     "/usr/bin/vornrun' and 'argv: --user USER -- PROGRAM'"},
    {" directory workingdir workingdirectory workdir cwd chdir ",
     "every node runs in the launcher's directory: to change it, write 'path: "
     "/usr/bin/vornrun' and 'argv: --directory DIR -- PROGRAM'"},
    {" umask ",
     "write 'path: /usr/bin/vornrun' and 'argv: --umask MODE -- PROGRAM'"},
    {" nice niceness ",
     "write 'path: /usr/bin/vornrun' and 'argv: --nice N -- PROGRAM'"},
    {" cpuaffinity affinity cpuset ",
     "write 'path: /usr/bin/vornrun' and 'argv: --cpu-list LIST -- PROGRAM'"},
    {" limits ulimits rlimits limitnofile limitcore limitmemlock limitnproc ",
     "write 'path: /usr/bin/vornrun' and 'argv: --limit NAME=SOFT:HARD -- "
     "PROGRAM'"},
    {" autorestart restart restartpolicy respawn keepalive availability ",
     "a node that exits is restarted after 5 s; 'oneshot: true' turns that "
     "off"},
    {" startsecs restartsec restartdelay backoffseconds startretries retries "
     "maxrestarts maxretries startlimitburst startlimitinterval "
     "startlimitintervalsec throttleinterval ",
     "a node is restarted 5 s after its start; the options --backoff and "
     "--give-up of vornrun delay and limit restarts"},
    {" exitcodes successexitstatus exitonfailure exitonend ",
     "a node is restarted after any exit status; 'oneshot: true' turns that "
     "off"},
    {" dependson depends dependencies dependency after before requires needs "
     "wants bindsto partof requisite links ",
     "nodes start in file order; 'required' is not a start order: it lists "
     "nodes that are restarted together with this one"},
    {" priority order ", "nodes start in file order"},
    {" delay wait startdelay initialdelay initialdelayseconds ",
     "'sleep' delays each start, in milliseconds"},
    {" enabled enable ",
     "write 'disabled: true' for a node that must not start"},
    {" once ", "write 'oneshot: true' for a program that runs once"},
    {" isdaemon daemon daemonize forking pidfile guessmainpid ",
     "the program must stay in the foreground"},
    {" stopsignal killsignal signal stoptimeout stopwaitsecs timeoutstopsec "
     "timeoutsec timeoutseconds stopgraceperiod killmode killasgroup "
     "stopasgroup shutdown execstop stopcommand ",
     "a node is stopped by SIGTERM, and by SIGKILL after 10 s; neither can be "
     "set"},
    {" execstartpre execstartpost execstoppost execreload prestart poststart ",
     "start a script that runs the commands"},
    {" stdoutlogfile stderrlogfile stdout stderr logfile loglocation log "
     "standardoutput standarderror redirectstderr stdoutlogfilemaxbytes "
     "stderrlogfilemaxbytes ",
     "nodes write to the launcher's output; the options --log-dir and --log of "
     "vornrun write to files and the journal"},
    {" readinessprobe livenessprobe healthcheck healthchecks watchdog "
     "watchdogsec ",
     "the launcher only sees exits; see the options --ready, --probe and "
     "--watchdog of vornrun"},
    {" numprocs replicas instances scale count ",
     "write one node for each process"},
};

constexpr ForeignKeys kForeignRootKeys[] = {
    {" node nodes service services process processes program programs unit "
     "units ",
     "write the nodes in 'vornnode'"},
    {" config configuration global globals settings ",
     "write global settings in 'configure'"},
    {" environment env environ variables ",
     "write global variables in 'environment' in 'configure'"},
};

template <size_t kSize>
const char* adviceIn(const ForeignKeys (&table)[kSize],
                     const std::string& key) {
  if (key.empty() || key.find(' ') != std::string::npos) return nullptr;
  const std::string word = ' ' + key + ' ';
  const auto* const found =
      std::find_if(std::begin(table), std::end(table), [&](const auto& row) {
        return row.keys.find(word) != std::string_view::npos;
      });
  return found == std::end(table) ? nullptr : found->advice;
}

}  // namespace

std::string normalizedKey(const std::string& key) {
  std::string normalized;
  for (const char letter : lowerCase(key)) {
    if (letter != '-' && letter != '_') normalized += letter;
  }
  return normalized;
}

const char* adviceForNodeKey(const std::string& key) {
  return adviceIn(kNodeKeys, key);
}

const char* adviceForRootKey(const std::string& key) {
  return adviceIn(kForeignRootKeys, key);
}

}  // namespace vorn::launch
