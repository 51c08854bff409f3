// sdbus_workers.cpp - the service as a programmer could write it in a day with sdbus-c++ and libcurl: eight workers, each
// keeps an easy handle.
//
// Only measured beside the daemon, never installed: no log, no settings, no checks of its input. Its configuration is its
// environment: see bench/measure/services.py.
#include <curl/curl.h>
#include <json/json.h>
#include <sdbus-c++/sdbus-c++.h>

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

constexpr const char* kInterface = "org.plevo.billingservice";
constexpr const char* kObject = "/org/plevo/billingservice";
constexpr int kWorkers = 8;
constexpr long kTimeoutSeconds = 90;

std::string env(const char* name)
{
    const char* const value = std::getenv(name);
    return value != nullptr ? value : "";
}

struct Settings {
    std::string base = "https://" + env("BILLING_HOST");
    std::string ca = env("BILLING_CA"), cert = env("BILLING_CERT"), key = env("BILLING_KEY");
    std::string duid = env("BILLING_DUID"), token = env("BILLING_TOKEN");
    std::string guid = env("BILLING_GUID"), uid = env("BILLING_UID");
    std::string country = env("BILLING_COUNTRY"), language = env("BILLING_LANGUAGE");
};

using Result = sdbus::Result<int32_t, std::string>;

struct Job {
    Result result;
    std::string path;
    std::string body;  ///< not empty: a POST
    bool history = false;
};

std::size_t append(char* data, std::size_t size, std::size_t count, void* body)
{
    static_cast<std::string*>(body)->append(data, size * count);
    return size * count;
}

/// Aborts a transfer when the service ends.
int stopped(void* stop, curl_off_t, curl_off_t, curl_off_t, curl_off_t)
{
    return static_cast<const std::atomic<bool>*>(stop)->load() ? 1 : 0;
}

class Client {
public:
    Client(const Settings& settings, std::atomic<bool>& stop)
        : m_settings(settings), m_easy(curl_easy_init())
    {
        for (const std::string& line :
             {std::string("Content-Type: application/json; charset=utf-8"),
              std::string("Accept: application/json"), "DUID: " + settings.duid,
              "Atoken: " + settings.token, std::string("Expect:")}) {
            m_headers = curl_slist_append(m_headers, line.c_str());
            m_history = curl_slist_append(m_history, line.c_str());
        }
        m_history = curl_slist_append(m_history, "TvYear: 15");
        m_history = curl_slist_append(m_history, "TvVersion: 1.2");
        set(CURLOPT_SSLENGINE, "pkcs11");
        set(CURLOPT_SSLKEYTYPE, "ENG");
        set(CURLOPT_SSLKEY, settings.key.c_str());
        set(CURLOPT_SSLCERT, settings.cert.c_str());
        set(CURLOPT_CAINFO, settings.ca.c_str());
        set(CURLOPT_CAPATH, nullptr);
        set(CURLOPT_NOSIGNAL, 1L);
        set(CURLOPT_TIMEOUT, kTimeoutSeconds);
        set(CURLOPT_WRITEFUNCTION, append);
        set(CURLOPT_NOPROGRESS, 0L);
        set(CURLOPT_XFERINFODATA, &stop);
        set(CURLOPT_XFERINFOFUNCTION, stopped);
    }
    Client(const Client&) = delete;
    ~Client()
    {
        curl_easy_cleanup(m_easy);
        curl_slist_free_all(m_headers);
        curl_slist_free_all(m_history);
    }

    std::pair<int32_t, std::string> fetch(const Job& job)
    {
        std::string answer;
        set(CURLOPT_URL, (m_settings.base + job.path).c_str());
        set(CURLOPT_HTTPHEADER, job.history ? m_history : m_headers);
        set(CURLOPT_WRITEDATA, &answer);
        if (job.body.empty()) {
            set(CURLOPT_HTTPGET, 1L);
        } else {
            set(CURLOPT_POST, 1L);
            set(CURLOPT_POSTFIELDS, job.body.c_str());
            set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(job.body.size()));
        }
        const CURLcode code = curl_easy_perform(m_easy);
        if (code != CURLE_OK)
            std::cerr << job.path << ": " << curl_easy_strerror(code) << '\n';
        return {code == CURLE_OK ? 0 : -1, std::move(answer)};
    }

private:
    template <typename Value>
    void set(CURLoption option, Value value)
    {
        if (const CURLcode code = curl_easy_setopt(m_easy, option, value); code != CURLE_OK)
            throw std::runtime_error(std::string("curl option: ") + curl_easy_strerror(code));
    }

    const Settings& m_settings;
    CURL* m_easy;
    curl_slist* m_headers = nullptr;
    curl_slist* m_history = nullptr;
};

class Pool {
public:
    explicit Pool(const Settings& settings)
    {
        // Created one by one: OpenSSL must not load an engine on several threads at once.
        for (int i = 0; i < kWorkers; i++)
            m_clients.push_back(std::make_unique<Client>(settings, m_stop));
        for (const auto& client : m_clients)
            m_threads.emplace_back([this, &client = *client] { work(client); });
    }
    Pool(const Pool&) = delete;
    ~Pool()
    {
        {
            const std::lock_guard lock(m_mutex);
            m_stop = true;
        }
        m_ready.notify_all();
        for (std::thread& thread : m_threads)
            thread.join();
    }

    void add(Job job)
    {
        {
            const std::lock_guard lock(m_mutex);
            m_jobs.push_back(std::move(job));
        }
        m_ready.notify_one();
    }

private:
    void work(Client& client)
    {
        for (;;) {
            std::unique_lock lock(m_mutex);
            m_ready.wait(lock, [this] { return m_stop || !m_jobs.empty(); });
            if (m_stop)
                return;
            Job job = std::move(m_jobs.front());
            m_jobs.pop_front();
            lock.unlock();
            answer(job, client.fetch(job));
        }
    }

    static void answer(const Job& job, const std::pair<int32_t, std::string>& fetched)
    {
        try {
            job.result.returnResults(fetched.first, fetched.second);
        } catch (const sdbus::Error& error) {
            std::cerr << "reply: " << error.what() << '\n';
            job.result.returnError({"org.plevo.billingservice.Error", error.getMessage()});
        }
    }

    std::atomic<bool> m_stop{false};
    std::mutex m_mutex;
    std::condition_variable m_ready;
    std::deque<Job> m_jobs;
    std::vector<std::unique_ptr<Client>> m_clients;
    std::vector<std::thread> m_threads;
};

std::string products(const Settings& s, const std::string& appid, const std::string& check)
{
    return "/billing/product/v2/products?appid=" + appid + "&guid=" + s.guid + "&uid=" + s.uid +
           "&storeid=1&storeprodcode=1&countrycode=" + s.country + "&languagecode=" + s.language +
           "&checkvalue=" + check;
}

std::string invoices(const Settings& s)
{
    return "/billing/service/v2/user/invoices?customid=" + s.uid + "&countrycode=" + s.country +
           "&languagecode=" + s.language + "&GUID=" + s.guid + "&UID=" + s.uid +
           "&storeid=1&storeprodcode=1&pagesize=20&startidx=1&reqtype=2";
}

std::string country(const Settings& s)
{
    return "/billing/service/v2/country?storeid=1&storeprodcode=1&guid=" + s.uid + "&uid=" + s.uid +
           "&lang=" + s.language + "&countrycode=" + s.country;
}

std::string purchase(const Settings& s, const std::string& appid, const std::string& customId,
                     const std::string& invoice)
{
    Json::Value body;
    body["storeId"] = "1";
    body["storeProdCode"] = "1";
    body["appId"] = appid;
    body["invoiceId"] = invoice;
    body["customId"] = customId;
    body["languageCode"] = s.language;
    body["countryCode"] = s.country;
    body["GUID"] = s.guid;
    body["UID"] = s.uid;
    return Json::writeString(Json::StreamWriterBuilder(), body);
}

using Text = const std::string&;

void registerMethods(sdbus::IObject& object, const Settings& s, Pool& pool)
{
    const auto payment = [&s, &pool](const char* path) {
        return [&s, &pool, path](Result&& result, Text appid, Text customId, Text invoice, Text) {
            pool.add({std::move(result), path, purchase(s, appid, customId, invoice)});
        };
    };
    object.registerMethod("get_product_list")
        .onInterface(kInterface)
        .implementedAs([&s, &pool](Result&& result, Text appid, Text, Text check) {
            pool.add({std::move(result), products(s, appid, check), {}});
        });
    object.registerMethod("get_purchase_history")
        .onInterface(kInterface)
        .implementedAs([&s, &pool](Result&& result, Text, Text, Text, Text, Text, Text) {
            pool.add({std::move(result), invoices(s), {}, true});
        });
    object.registerMethod("get_applied_time")
        .onInterface(kInterface)
        .implementedAs(payment("/billing/payment/v2/apply"));
    object.registerMethod("confirm_purchase")
        .onInterface(kInterface)
        .implementedAs(payment("/billing/payment/v2/confirm"));
    object.registerMethod("check_server_availability")
        .onInterface(kInterface)
        .implementedAs([&s, &pool](Result&& result) {
            pool.add({std::move(result), country(s), {}});
        });
    object.finishRegistration();
}

}  // namespace

int main()
{
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &term, nullptr);
    curl_global_init(CURL_GLOBAL_DEFAULT);

    const Settings settings;
    const auto connection = sdbus::createSystemBusConnection();
    Pool pool(settings);
    const auto object = sdbus::createObject(*connection, kObject);
    registerMethods(*object, settings, pool);
    connection->requestName(env("BILLING_NAME"));

    std::thread([&] {
        int number = 0;
        sigwait(&term, &number);
        connection->leaveEventLoop();
    }).detach();
    connection->enterEventLoop();
    return 0;
}
