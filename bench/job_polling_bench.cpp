// Polling 1,000 finished jobs: through libkscdp.so (call_check_eviction_progress
// over the stand-in HTTP client), against what a careful engineer would write
// by hand: the same 1,000 GETs from one libcurl easy handle that keeps its
// connection open, each answer parsed with Jansson down to the job's state.
// The same loop without the parse is a second, informative baseline. All ask
// the master simulator on loopback, in this process, for the same URLs with
// the same Accept.
//
//   kscdp_job_polling_bench [Google Benchmark flags]
//   kscdp_job_polling_bench --count library|curl-parse|curl
//     polls once, in measuredPolls(), for callgrind to count.
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <jansson.h>
#include <kscdp/backup_engine.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "benchmark_program.h"
#include "master_sim/MasterSimulator.h"
#include "rest/KeepstoneRestApi.h"
#include "standin_files.h"

namespace {

const int kJobCount = 1000;

// The simulator with kJobCount jobs, all DONE, and the engine's records of
// them on a requested list.
struct FinishedJobs {
  master_sim::MasterSimulator master;
  std::vector<evict_vm_info> vms = std::vector<evict_vm_info>(kJobCount);
  vm_node_list* requested = nullptr;
  std::vector<std::string> urls;  // of every job, in the order the list holds them

  explicit FinishedJobs(const bench::StandinFiles& files) {
    if (!master.start()) throw std::runtime_error("the master simulator cannot start");
    files.writeConfig("server = 127.0.0.1\nhost_name = bench-host\nrest_url = " + master.url() + "\n");
    for (evict_vm_info& vm : vms) {
      vm.job_id = static_cast<uint64_t>(master.createJob("cdp-gold"));
      vm.evict_state = 1;
    }
    master.advanceTime(3600);
    // The list is built by prepending: walk the records backwards to keep their order.
    for (auto vm = vms.rbegin(); vm != vms.rend(); ++vm) {
      if (insert_into_vm_list(&requested, &*vm) != 0) throw std::runtime_error("no memory for the list");
    }
    for (const evict_vm_info& vm : vms)
      urls.push_back(master.url() + "/" + keepstone_rest::kJobsPath + std::to_string(vm.job_id));
  }

  ~FinishedJobs() { delete_from_vm_list(&requested); }
};

FinishedJobs* g_jobs = nullptr;

size_t keepBody(char* data, size_t size, size_t count, void* body) {
  static_cast<std::string*>(body)->append(data, size * count);
  return size * count;
}

// Every job once through the library; false when one was not reported done.
bool libraryPollsOnce() {
  for (evict_vm_info& vm : g_jobs->vms) vm.evict_state = 1;
  if (call_check_eviction_progress(kJobCount, &g_jobs->requested) != 0) return false;
  for (const evict_vm_info& vm : g_jobs->vms) {
    if (vm.evict_state != 2) return false;
  }
  return true;
}

// One libcurl easy handle that keeps its connection open, as a poller of
// our own would hold it.
class CurlPoller {
 public:
  CurlPoller()
      : m_easy(curl_easy_init(), &curl_easy_cleanup),
        m_headers(curl_slist_append(nullptr, (std::string("Accept: ") + keepstone_rest::kVersionedMediaType).c_str()),
                  &curl_slist_free_all) {
    curl_easy_setopt(m_easy.get(), CURLOPT_HTTPHEADER, m_headers.get());
    curl_easy_setopt(m_easy.get(), CURLOPT_WRITEFUNCTION, &keepBody);
    curl_easy_setopt(m_easy.get(), CURLOPT_WRITEDATA, &m_body);
    curl_easy_setopt(m_easy.get(), CURLOPT_NOSIGNAL, 1L);
  }

  // Every job once; with `parse`, each answer down to "data" -> "attributes"
  // -> "state", which must be "DONE". False on any failure.
  bool pollOnce(bool parse) {
    for (const std::string& url : g_jobs->urls) {
      m_body.clear();
      curl_easy_setopt(m_easy.get(), CURLOPT_URL, url.c_str());
      long code = 0;
      if (curl_easy_perform(m_easy.get()) == CURLE_OK) curl_easy_getinfo(m_easy.get(), CURLINFO_RESPONSE_CODE, &code);
      if (code != 200 || (parse && !isDone(m_body))) return false;
    }
    return true;
  }

 private:
  static bool isDone(const std::string& body) {
    json_t* document = json_loads(body.c_str(), 0, nullptr);
    const char* state =
        json_string_value(json_object_get(json_object_get(json_object_get(document, "data"), "attributes"), "state"));
    const bool done = state != nullptr && std::strcmp(state, "DONE") == 0;
    json_decref(document);
    return done;
  }

  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> m_easy;
  std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> m_headers;
  std::string m_body;
};

void LibraryPolls(benchmark::State& state) {
  for (auto _ : state) {
    if (!libraryPollsOnce()) {
      state.SkipWithError("a finished job was not reported done");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * kJobCount);
}

void CurlKeepAlivePolls(benchmark::State& state, bool parse) {
  CurlPoller poller;
  for (auto _ : state) {
    if (!poller.pollOnce(parse)) {
      state.SkipWithError("a job poll failed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * kJobCount);
}

void CurlKeepAliveParsePolls(benchmark::State& state) { CurlKeepAlivePolls(state, true); }
void CurlKeepAliveOnlyPolls(benchmark::State& state) { CurlKeepAlivePolls(state, false); }

// What callgrind counts (--toggle-collect=*measuredPolls*): one poll of every
// job, after a first one that opened the connection.
__attribute__((noinline)) bool measuredPolls(const std::string& contender, CurlPoller& poller) {
  if (contender == "library") return libraryPollsOnce();
  return poller.pollOnce(contender == "curl-parse");
}

int countInstructions(const std::string& contender) {
  const bench::StandinFiles files;
  FinishedJobs jobs(files);
  g_jobs = &jobs;
  CurlPoller poller;
  const bool warm = contender == "library" ? libraryPollsOnce() : poller.pollOnce(contender == "curl-parse");
  const bool measured = warm && measuredPolls(contender, poller);
  g_jobs = nullptr;
  if (!measured) std::fprintf(stderr, "kscdp_job_polling_bench: polling failed\n");
  return measured ? 0 : 1;
}

// Nine repetitions each, interleaved by run.sh: the summary compares medians,
// which a passing burst of load on the machine moves less than a mean.
void NineRepetitions(benchmark::internal::Benchmark* contender) {
  contender->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(9)->ReportAggregatesOnly(true);
}
BENCHMARK(LibraryPolls)->Apply(NineRepetitions);
BENCHMARK(CurlKeepAliveParsePolls)->Apply(NineRepetitions);
BENCHMARK(CurlKeepAliveOnlyPolls)->Apply(NineRepetitions);

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--count") == 0) {
    try {
      return countInstructions(argv[2]);
    } catch (const std::exception& e) {
      std::fprintf(stderr, "kscdp_job_polling_bench: %s\n", e.what());
      return 1;
    }
  }
  return bench::runBenchmarks(argc, argv, "job polling benchmark", [] {
    const bench::StandinFiles files;
    FinishedJobs jobs(files);
    g_jobs = &jobs;
    benchmark::RunSpecifiedBenchmarks();
    g_jobs = nullptr;
  });
}
