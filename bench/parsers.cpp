// The readers of the service's answers against expat's own event loop over the same bytes, with handlers that
// do nothing: what the records, the lists and the log lines cost on top of reading XML at all.
//
// The answers are the simulated service's. The reader of a page asks for the renditions of every item while
// it reads; here it gets one answer from memory instead, so that the page's case holds the 500 small
// documents too, on both sides.
//
// Without --log=FILE the host's log drops its lines, as it does before it has a file.

#include <benchmark/benchmark.h>
#include <expat.h>

#include <cstring>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "core/PhotoInformationSaxHandler.h"
#include "core/PhotoListSaxHandler.h"
#include "core/PhotosetSaxHandler.h"
#include "core/SignedRequest.h"
#include "hostapi/PluginCore.h"
#include "sim/FlickrSim.h"
#include "sim/GeneratedAccount.h"

using Norvale_Plugin_Flickr::SignedRequest;

namespace {

constexpr unsigned kSets = 10000;
constexpr unsigned kPageItems = 500;
constexpr int kSizeAnswers = 10000;

struct Answers {
    std::string sets, page, sizes;
};

std::string ask(const SignedRequest& request) {
    Norvale_Plugin_Flickr::HttpExchange call = request.prepared();
    if (call.exchange().getStatus() != Poco::Net::HTTPResponse::HTTP_OK) return {};
    return {std::istreambuf_iterator<char>(call.body()), {}};
}

/// Asks an account of many small sets for their list, and one of a large set for a page and an item's sizes.
Answers askService() {
    Answers answers;
    for (const unsigned sets : {kSets, 1u}) {
        flickr_sim::Generation generation;
        generation.sets = sets;
        generation.itemsPerSet = sets == 1 ? kPageItems : 1;
        generation.videos = generation.loose = 0;
        flickr_sim::Account account;
        flickr_sim::generate(account, generation);
        flickr_sim::FlickrSim sim(account);
        const auto& credentials = sim.credentials();
        const Norvale_Plugin_Flickr::ServiceAccess access{sim.dataUrl(), credentials.token,
                                                          credentials.apiKey, credentials.apiSecret};
        if (sets != 1) {
            answers.sets = ask(SignedRequest(access, "flickr.photosets.getList").addToken());
            continue;
        }
        const std::string set = account.sets().front().id;
        const std::string item = account.items(set).front()->id;
        answers.page = ask(SignedRequest(access, "flickr.photosets.getPhotos")
                               .add("photoset_id", set)
                               .addExtras()
                               .addToken()
                               .add("page", "1"));
        answers.sizes = ask(SignedRequest(access, "flickr.photos.getSizes").add("photo_id", item).addToken());
    }
    return answers;
}

const Answers& answers() {
    static const Answers all = askService();
    return all;
}

void runExpat(const std::string& document) {
    const XML_Parser parser = XML_ParserCreate(nullptr);
    XML_SetElementHandler(
        parser, [](void*, const XML_Char*, const XML_Char**) {}, [](void*, const XML_Char*) {});
    XML_SetCharacterDataHandler(parser, [](void*, const XML_Char*, int) {});
    if (XML_Parse(parser, document.data(), static_cast<int>(document.size()), 1) != XML_STATUS_OK)
        std::abort();
    XML_ParserFree(parser);
}

/// Reads a page without a connection.
class PageReader : public Norvale_Plugin_Flickr::PhotoListSaxHandler {
    bool getPhotoInformation(Norvale_Plugin_Flickr::Photo& photo) override {
        std::istringstream body(answers().sizes);
        parsePhotoInformationV2(body, photo);
        return true;
    }
};

void setListOurs(benchmark::State& state) {
    for (auto _ : state) {
        Norvale_Plugin_Flickr::PhotosetSaxHandler handler;
        handler.read(answers().sets);
        if (std::move(handler).getPhotosetList().size() != kSets) std::abort();
    }
}

void setListExpat(benchmark::State& state) {
    for (auto _ : state) runExpat(answers().sets);
}

void pageOurs(benchmark::State& state) {
    for (auto _ : state) {
        PageReader handler;
        handler.setData("secret", "key", "token", {}, {}, "http://127.0.0.1/services/rest/");
        handler.read(answers().page);
        if (std::move(handler).getPhotoList().size() != kPageItems) std::abort();
    }
}

void pageExpat(benchmark::State& state) {
    for (auto _ : state) {
        runExpat(answers().page);
        for (unsigned i = 0; i < kPageItems; ++i) runExpat(answers().sizes);
    }
}

void sizesOurs(benchmark::State& state) {
    Norvale_Plugin_Flickr::Photo photo;
    photo.setMediaType("photo");
    for (auto _ : state) {
        for (int i = 0; i < kSizeAnswers; ++i) {
            Norvale_Plugin_Flickr::PhotoInformationSaxHandler handler;
            handler.setPhoto(photo);
            handler.read(answers().sizes);
            if (std::move(handler).getPhoto().getImagePath().empty()) std::abort();
        }
    }
}

void sizesExpat(benchmark::State& state) {
    for (auto _ : state) {
        for (int i = 0; i < kSizeAnswers; ++i) runExpat(answers().sizes);
    }
}

BENCHMARK(setListOurs)->Name("a list of 10,000 sets/ours");
BENCHMARK(setListExpat)->Name("a list of 10,000 sets/expat");
BENCHMARK(pageOurs)->Name("a page of 500 photos/ours");
BENCHMARK(pageExpat)->Name("a page of 500 photos/expat");
BENCHMARK(sizesOurs)->Name("10,000 size answers/ours");
BENCHMARK(sizesExpat)->Name("10,000 size answers/expat");

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    constexpr const char* kLogOption = "--log=";
    std::unique_ptr<Norvale_Plugin_Core::PluginCore> log;
    if (argc > 1 && std::strncmp(argv[1], kLogOption, std::strlen(kLogOption)) == 0) {
        log = std::make_unique<Norvale_Plugin_Core::PluginCore>("", argv[1] + std::strlen(kLogOption));
    }
    answers();
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
