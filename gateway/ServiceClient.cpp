#include "gateway/ServiceClient.h"

#include <algorithm>
#include <thread>
#include <utility>

namespace flickr_gateway {

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr int kAttempts = 3;
constexpr milliseconds kLook{100};

std::int64_t steadyNow() {
    return std::chrono::duration_cast<milliseconds>(Clock::now().time_since_epoch()).count();
}

/// The value of "oauth_problem" in the body of a refusal; empty when it names none.
std::string problemIn(const std::string& body) {
    static const std::string name = "oauth_problem=";
    const std::size_t start = body.find(name);
    if (start == std::string::npos) return std::string();
    return body.substr(start + name.size(), body.find_first_of("& \r\n", start) - start - name.size());
}

[[noreturn]] void failRefused(const std::string& words, int code) {
    throw Failure(
        Failure::Kind::Refused,
        "The service does not accept the sign-in (" + words + "); run \"flickr-backup login\" again.", code);
}

/// For an answer that is no document of the interface.
[[noreturn]] void failStatus(int status, const std::string& body) {
    const std::string problem = problemIn(body);
    if (problem == "timestamp_refused") {
        throw Failure(Failure::Kind::Unavailable,
                      "The service refuses the time of this computer; set its clock right.");
    }
    // A nonce that was used before is none of the user's doing: the next one is another.
    if (problem == "nonce_used") throw Failure(Failure::Kind::Unavailable, "The service refuses a nonce.");
    if (status == 401 || !problem.empty()) {
        failRefused(problem.empty() ? "status " + std::to_string(status) : problem, 98);
    }
    throw Failure(Failure::Kind::Unavailable,
                  "The service answers with status " + std::to_string(status) + ".");
}

/// For stat="fail".
[[noreturn]] void failAnswer(const ServiceAnswer& answer) {
    const std::string words = "error " + std::to_string(answer.code) + ": " + answer.message;
    switch (answer.code) {
        case 1:
            throw Failure(Failure::Kind::NotFound, "The service answers with " + words + ".", answer.code);
        case 96:
        case 97:
        case 98:
        case 99:
        case 100:
            failRefused(words, answer.code);
        default:
            throw Failure(Failure::Kind::Unavailable, "The service answers with " + words + ".", answer.code);
    }
}

}  // namespace

void pauseFor(milliseconds time, const Cancelled& cancelled) {
    for (const Clock::time_point end = Clock::now() + time; Clock::now() < end;) {
        if (cancelled()) throw CancelledFailure();
        std::this_thread::sleep_for(std::min<Clock::duration>(end - Clock::now(), kLook));
    }
}

ServiceClient::ServiceClient(std::string restAddress, const OAuthKeys& keys, const std::string& budgetFile,
                             const PatienceLimits& limits)
    : address_(std::move(restAddress)),
      keys_(keys),
      budget_(budgetFile),
      patience_(limits),
      retryPause_(limits.first / 2) {}

ServiceAnswer ServiceClient::call(HttpClient& http, const std::string& method, Parameters parameters,
                                  const Cancelled& cancelled) {
    parameters.emplace_back("method", method);
    for (int attempt = 1;; ++attempt) {
        try {
            return ask(http, parameters, cancelled);
        } catch (Failure& failure) {
            if (failure.kind() != Failure::Kind::Unavailable || attempt == kAttempts) throw;
        }
        pauseFor(retryPause_ * attempt, cancelled);
    }
}

ServiceAnswer ServiceClient::ask(HttpClient& http, const Parameters& parameters, const Cancelled& cancelled) {
    for (;;) {
        const unsigned wait = patience_.await(cancelled);
        awaitBudget(cancelled);
        HttpRequest request;
        request.url = address_ + "?" + queryOf(parameters);
        request.headers = {"Authorization: " + authorizationOf(keys_, address_, parameters)};
        request.compressed = true;
        HttpHead head;
        std::string body;
        http.get(
            request, [&](const HttpHead& received) { head = received; },
            [&](const char* data, std::size_t size) {
                body.append(data, size);
                if (body.size() > kLargestAnswer) {
                    throw Failure(Failure::Kind::Unavailable, "The service's answer has no end.");
                }
            },
            cancelled);
        if (head.status == 429 || head.status == 503) {
            patience_.refused(wait, head.retryAfter);
            continue;
        }
        if (head.status != 200) failStatus(head.status, body);
        ServiceAnswer answer = readAnswer(body);
        patience_.succeeded();
        if (answer.failed) failAnswer(answer);
        return answer;
    }
}

void ServiceClient::awaitBudget(const Cancelled& cancelled) {
    for (;;) {
        const milliseconds time = budget_.take();
        if (time.count() == 0) break;
        budgetUntil_ = steadyNow() + time.count();
        // Looks again now and then: another run may have ended.
        pauseFor(std::min<milliseconds>(time, std::chrono::seconds(10)), cancelled);
    }
}

milliseconds ServiceClient::waitOfBudget() const {
    return milliseconds(std::max<std::int64_t>(budgetUntil_ - steadyNow(), 0));
}

}  // namespace flickr_gateway
