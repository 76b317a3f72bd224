#include "bare_http.hpp"

#include <curl/curl.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <latch>
#include <memory>
#include <stdexcept>
#include <thread>

namespace tessaline::benchmarks {
namespace {

using Clock = std::chrono::steady_clock;

std::size_t collect(char* data, std::size_t size, std::size_t count, void* text) {
  static_cast<std::string*>(text)->append(data, size * count);
  return size * count;
}

double cpu_seconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

class Poster {
 public:
  Poster() : easy_(curl_easy_init()), headers_(curl_slist_append(nullptr, "Content-Type: application/json")) {
    if (!easy_ || !headers_) throw std::runtime_error("libcurl has no memory");
    curl_easy_setopt(easy_.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy_.get(), CURLOPT_HTTPHEADER, headers_.get());
    curl_easy_setopt(easy_.get(), CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(easy_.get(), CURLOPT_WRITEDATA, &answer_);
    curl_easy_setopt(easy_.get(), CURLOPT_TIMEOUT, 60L);
    if (const char* roots = std::getenv("SSL_CERT_FILE")) {
      curl_easy_setopt(easy_.get(), CURLOPT_CAINFO, roots);
    }
  }

  void post(const std::string& url, const std::string& body) {
    answer_.clear();
    curl_easy_setopt(easy_.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy_.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    curl_easy_setopt(easy_.get(), CURLOPT_POSTFIELDS, body.data());
    const CURLcode code = curl_easy_perform(easy_.get());
    if (code != CURLE_OK) throw std::runtime_error(curl_easy_strerror(code));
    long status = 0;
    curl_easy_getinfo(easy_.get(), CURLINFO_RESPONSE_CODE, &status);
    if (status != 200) throw std::runtime_error("answered with " + std::to_string(status));
  }

 private:
  struct Close {
    void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
  };

  std::unique_ptr<CURL, Close> easy_;
  std::unique_ptr<curl_slist, Close> headers_;
  std::string answer_;
};

}  // namespace

Spent time_bare_posts(std::size_t loops, const std::string& url, const std::string& body) {
  Poster poster;
  poster.post(url, body);
  const double cpu = cpu_seconds();
  const Clock::time_point begin = Clock::now();
  for (std::size_t i = 0; i < loops; ++i) poster.post(url, body);
  return {std::chrono::duration<double>(Clock::now() - begin).count(), cpu_seconds() - cpu};
}

void post_bare(const std::vector<std::string>& urls, const std::vector<std::string>& bodies) {
  Poster poster;
  for (std::size_t step = 0; step < urls.size(); ++step) poster.post(urls[step], bodies[step]);
}

double time_bare_crowd(std::size_t threads, const std::vector<std::string>& urls,
                       const std::vector<std::string>& bodies) {
  std::latch start(1);
  std::atomic<bool> failed{false};
  std::vector<std::jthread> crowd;
  crowd.reserve(threads);
  for (std::size_t i = 0; i < threads; ++i) {
    crowd.emplace_back([&] {
      start.wait();
      try {
        post_bare(urls, bodies);
      } catch (const std::runtime_error&) {
        failed = true;
      }
    });
  }
  const Clock::time_point begin = Clock::now();
  start.count_down();
  crowd.clear();
  if (failed) throw std::runtime_error("an exchange failed");
  return std::chrono::duration<double>(Clock::now() - begin).count();
}

}  // namespace tessaline::benchmarks
