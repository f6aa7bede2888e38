#include "standin/app/ProgramArguments.h"

#include <fcntl.h>

#include <cstdlib>
#include <cstring>

#include "standin/framework/base/Text.h"

namespace flickr_app {
namespace {

char** given = nullptr;

bool isUtf8(const char* text) {
    return flickr_standin::validUtf8(text) == text;
}

/// Runs before the initialisation of any library and so uses no state of one.
void lookOver(int argc, char** argv, char** environment) {
    // Else the first files that are opened would be written to as output.
    for (int stream = 0; stream <= 2; ++stream) {
        if (::fcntl(stream, F_GETFD) >= 0) continue;
        ::open("/dev/null", stream == 1 ? O_RDONLY : O_RDWR);  // output that goes nowhere is an error
    }
    given = static_cast<char**>(std::calloc(static_cast<std::size_t>(argc) + 1, sizeof *given));
    if (given == nullptr) std::abort();
    for (int i = 0; i < argc; ++i) {
        given[i] = ::strdup(argv[i]);
        if (isUtf8(argv[i])) continue;
        for (char* byte = argv[i]; *byte != '\0'; ++byte) {
            if (static_cast<unsigned char>(*byte) >= 0x80) *byte = '?';
        }
    }
    char** kept = environment;
    for (char** variable = environment; *variable != nullptr; ++variable) {
        if (isUtf8(*variable)) *kept++ = *variable;
    }
    *kept = nullptr;
}

__attribute__((section(".preinit_array"), used)) void (*const atStart)(int, char**, char**) = lookOver;

}  // namespace

char** programArguments() {
    return given;
}

void setUpFoundation() {
    ::setenv("GNUSTEP_STRING_ENCODING", "NSUTF8StringEncoding", 1);
}

}  // namespace flickr_app
