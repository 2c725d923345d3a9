// Polling 1,000 finished jobs: through libkscdp.so (call_check_eviction_progress
// over the stand-in HTTP client), and as the same 1,000 GETs from one libcurl
// easy handle that keeps its connection open. Both ask the master simulator
// on loopback, in this process, for the same URLs with the same Accept.
#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "benchmark_program.h"
#include "engine/backup_engine.h"
#include "master_sim/MasterSimulator.h"
#include "standin_files.h"

namespace {

const int kJobCount = 1000;
const char kJobsPath[] = "/keepstone/admin/jobs/";

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
    for (const evict_vm_info& vm : vms) urls.push_back(master.url() + kJobsPath + std::to_string(vm.job_id));
  }

  ~FinishedJobs() { delete_from_vm_list(&requested); }
};

FinishedJobs* g_jobs = nullptr;

size_t keepBody(char* data, size_t size, size_t count, void* body) {
  static_cast<std::string*>(body)->append(data, size * count);
  return size * count;
}

void LibraryPolls(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    for (evict_vm_info& vm : g_jobs->vms) vm.evict_state = 1;
    state.ResumeTiming();
    if (call_check_eviction_progress(kJobCount, &g_jobs->requested) != 0) {
      state.SkipWithError("call_check_eviction_progress failed");
      break;
    }
    state.PauseTiming();
    for (const evict_vm_info& vm : g_jobs->vms) {
      if (vm.evict_state != 2) state.SkipWithError("a finished job was not reported done");
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kJobCount);
}

void CurlKeepAlivePolls(benchmark::State& state) {
  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> easy(curl_easy_init(), &curl_easy_cleanup);
  std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(
      curl_slist_append(nullptr, (std::string("Accept: ") + master_sim::kJobsMediaType).c_str()),
      &curl_slist_free_all);
  std::string body;
  curl_easy_setopt(easy.get(), CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, &keepBody);
  curl_easy_setopt(easy.get(), CURLOPT_WRITEDATA, &body);
  curl_easy_setopt(easy.get(), CURLOPT_NOSIGNAL, 1L);
  for (auto _ : state) {
    for (const std::string& url : g_jobs->urls) {
      body.clear();
      curl_easy_setopt(easy.get(), CURLOPT_URL, url.c_str());
      long code = 0;
      if (curl_easy_perform(easy.get()) == CURLE_OK) curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &code);
      if (code != 200) {
        state.SkipWithError("a job poll failed");
        break;
      }
    }
  }
  state.SetItemsProcessed(state.iterations() * kJobCount);
}

// Several repetitions (run.sh interleaves them): the summary compares medians.
BENCHMARK(LibraryPolls)->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(CurlKeepAlivePolls)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

}  // namespace

int main(int argc, char** argv) {
  return bench::runBenchmarks(argc, argv, "job polling benchmark", [] {
    const bench::StandinFiles files;
    FinishedJobs jobs(files);
    g_jobs = &jobs;
    benchmark::RunSpecifiedBenchmarks();
    g_jobs = nullptr;
  });
}
