// worker_floor.cpp - both floors in one, with the daemon's threads: the main thread takes calls and answers them, and a worker
// has the transfers. No log, no settings, no key store.
//
// Its distance from both_floor is what the two changes of thread cost.
//
// usage: worker_floor NAME URL CA_FILE CERTIFICATE KEY [HEADER...]
#include "fetch.h"
#include "serve.h"

#include <mutex>
#include <thread>
#include <vector>

namespace {

/// Calls on their way to the worker.
struct Calls {
    std::mutex lock;
    std::vector<GDBusMethodInvocation*> waiting;
};

struct Worker {
    CURLM* multi;
    Target target;
    Calls calls;
};

struct Answer {
    GDBusMethodInvocation* invocation;
    std::unique_ptr<Fetch> fetch;
};

/// On the main thread.
gboolean reply(void* pointer)
{
    const std::unique_ptr<Answer> answer(static_cast<Answer*>(pointer));
    g_dbus_method_invocation_return_value(answer->invocation,
                                          g_variant_new("(is)", 0, answer->fetch->body.c_str()));
    return G_SOURCE_REMOVE;
}

void work(Worker& worker)
{
    std::vector<GDBusMethodInvocation*> taken;
    for (;;) {
        {
            const std::lock_guard<std::mutex> guard(worker.calls.lock);
            taken.swap(worker.calls.waiting);
        }
        for (GDBusMethodInvocation* const invocation : taken)
            start(worker.multi, worker.target, invocation);
        taken.clear();
        int running = 0;
        curl_multi_perform(worker.multi, &running);
        int left = 0;
        while (const CURLMsg* const message = curl_multi_info_read(worker.multi, &left)) {
            auto fetch = finish(worker.multi, *message);
            auto* const invocation = static_cast<GDBusMethodInvocation*>(fetch->call);
            g_idle_add(reply, new Answer{invocation, std::move(fetch)});
        }
        curl_multi_poll(worker.multi, nullptr, 0, 1000, nullptr);
    }
}

void take(GDBusConnection*, const char*, const char*, const char*, const char*, GVariant*,
          GDBusMethodInvocation* invocation, void* data)
{
    auto& worker = *static_cast<Worker*>(data);
    {
        const std::lock_guard<std::mutex> guard(worker.calls.lock);
        worker.calls.waiting.push_back(invocation);
    }
    curl_multi_wakeup(worker.multi);
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 6)
        fail("usage", "worker_floor NAME URL CA_FILE CERTIFICATE KEY [HEADER...]");
    curl_global_init(CURL_GLOBAL_DEFAULT);
    Worker worker{curl_multi_init(), targetOf(argv[2], argv + 3), {}};
    std::thread(work, std::ref(worker)).detach();
    serve(argv[1], take, &worker);
    return 0;
}
