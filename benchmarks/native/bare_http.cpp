#include "bare_http.hpp"

#include <curl/curl.h>
#include <openssl/ssl.h>

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

CURLcode trust_roots(CURL* /*easy*/, void* context, void* roots) {
  const int done =
      SSL_CTX_set1_verify_cert_store(static_cast<SSL_CTX*>(context), static_cast<X509_STORE*>(roots));
  return done == 1 ? CURLE_OK : CURLE_ABORTED_BY_CALLBACK;
}

class Client {
 public:
  explicit Client(X509_STORE* roots = nullptr)
      : easy_(curl_easy_init()), headers_(curl_slist_append(nullptr, "Content-Type: application/json")) {
    if (!easy_ || !headers_) throw std::runtime_error("libcurl has no memory");
    curl_easy_setopt(easy_.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy_.get(), CURLOPT_HTTPHEADER, headers_.get());
    curl_easy_setopt(easy_.get(), CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(easy_.get(), CURLOPT_WRITEDATA, &answer_);
    curl_easy_setopt(easy_.get(), CURLOPT_TIMEOUT, 60L);
    if (roots != nullptr) {
      curl_easy_setopt(easy_.get(), CURLOPT_CAINFO, nullptr);
      curl_easy_setopt(easy_.get(), CURLOPT_CAPATH, nullptr);
      curl_easy_setopt(easy_.get(), CURLOPT_SSL_CTX_FUNCTION, trust_roots);
      curl_easy_setopt(easy_.get(), CURLOPT_SSL_CTX_DATA, roots);
    } else if (const char* file = std::getenv("SSL_CERT_FILE")) {
      curl_easy_setopt(easy_.get(), CURLOPT_CAINFO, file);
    }
  }

  void post(const std::string& url, const std::string& body) {
    curl_easy_setopt(easy_.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    curl_easy_setopt(easy_.get(), CURLOPT_POSTFIELDS, body.data());
    perform(url);
  }

  void get(const std::string& url) {
    curl_easy_setopt(easy_.get(), CURLOPT_HTTPGET, 1L);
    perform(url);
  }

 private:
  struct Close {
    void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
  };

  void perform(const std::string& url) {
    answer_.clear();
    curl_easy_setopt(easy_.get(), CURLOPT_URL, url.c_str());
    const CURLcode code = curl_easy_perform(easy_.get());
    if (code != CURLE_OK) throw std::runtime_error(curl_easy_strerror(code));
    long status = 0;
    curl_easy_getinfo(easy_.get(), CURLINFO_RESPONSE_CODE, &status);
    if (status != 200) throw std::runtime_error("answered with " + std::to_string(status));
  }

  std::unique_ptr<CURL, Close> easy_;
  std::unique_ptr<curl_slist, Close> headers_;
  std::string answer_;
};

}  // namespace

Spent time_bare_posts(std::size_t loops, const std::string& url, const std::string& body) {
  Client client;
  client.post(url, body);
  const double cpu = cpu_seconds();
  const Clock::time_point begin = Clock::now();
  for (std::size_t i = 0; i < loops; ++i) client.post(url, body);
  return {std::chrono::duration<double>(Clock::now() - begin).count(), cpu_seconds() - cpu};
}

double time_bare_connections(std::size_t loops, const std::string& url, X509_STORE* roots) {
  Client client(roots);
  client.get(url);
  const double cpu = cpu_seconds();
  for (std::size_t i = 0; i < loops; ++i) client.get(url);
  return cpu_seconds() - cpu;
}

void post_bare(const std::vector<std::string>& urls, const std::vector<std::string>& bodies,
               X509_STORE* roots) {
  Client client(roots);
  for (std::size_t step = 0; step < urls.size(); ++step) client.post(urls[step], bodies[step]);
}

double time_bare_crowd(std::size_t threads, const std::vector<std::string>& urls,
                       const std::vector<std::string>& bodies, X509_STORE* roots) {
  std::latch start(1);
  std::atomic<bool> failed{false};
  std::vector<std::jthread> crowd;
  crowd.reserve(threads);
  for (std::size_t i = 0; i < threads; ++i) {
    crowd.emplace_back([&] {
      start.wait();
      try {
        post_bare(urls, bodies, roots);
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
