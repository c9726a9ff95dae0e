// The counters are all that threads share: plain fields, incremented atomically. A mutex makes the
// first-use initialisation run once; nothing else takes it.

#include <ztlib/utils/uid.h>

#include <ztlib/base/atomic.h>
#include <ztlib/base/descriptor.h>
#include <ztlib/base/lock.h>
#include <ztlib/utils/split.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <fcntl.h>

namespace {

constexpr const char* kModule = "./utils/uid";

constexpr int kHexadecimal = 16;
constexpr uint32_t kGroups = 5;
constexpr unsigned kLineSize = 1024;
constexpr unsigned kSeedOffset = 100;  // seconds added to the time that seeds rand()

pthread_mutex_t init_mutex = PTHREAD_MUTEX_INITIALIZER;
bool initialised = false;

uint32_t counter32 = 0;
uint16_t counter16 = 0;
uint32_t time_counter = 0;

char shared_text[UID_TEXT_SIZE];

// The new value.
template <class Counter>
Counter increment(Counter& counter) {
    return static_cast<Counter>(std::atomic_ref<Counter>(counter).fetch_add(1) + 1);
}

template <class Counter>
bool seed(Counter& counter) {
    Counter value;
    if (uid_uread(&value, sizeof value) != 0) return false;
    zt::store(counter, value);
    return true;
}

// The caller holds the mutex.
int initialise() {
    srand(static_cast<unsigned>(time(nullptr)) + kSeedOffset);
    if (!seed(counter16)) return -1;
    if (!seed(counter32)) return -2;
    zt::store(initialised, true);
    return 0;
}

bool initialise_once(zt::Site site) {
    if (zt::load(initialised)) return true;
    const zt::Lock lock(init_mutex, site);
    return zt::load(initialised) || initialise() == 0;
}

int open_random_device() {
    const int device = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    return device >= 0 ? device : open("/dev/random", O_RDONLY | O_CLOEXEC);
}

// The first line of the file, cut to the room, or an empty text. False when it does not open.
bool read_first_line(const char* path, char (&line)[kLineSize]) {
    FILE* file = fopen(path, "re");
    if (!file) return false;
    if (!fgets(line, sizeof line, file)) line[0] = '\0';
    fclose(file);
    return true;
}

template <class Integer>
Integer read_group(const char* text) {
    return static_cast<Integer>(strtoull(text, nullptr, kHexadecimal));
}

}  // namespace

extern "C" int uid_uread(void* destination, int length) {
    if (!destination) return -1;
    const zt::Descriptor device(open_random_device());
    if (!device) return -1;
    const size_t size = length > 0 ? static_cast<size_t>(length) : 0;
    return zt::read_all(device.get(), destination, size) ? 0 : -2;
}

extern "C" int uid_generate(uid* id) {
    const zt::Site here{kModule, __func__};
    if (!id || !initialise_once(here)) return -1;

    uint64_t random = 0;
    uid_uread(&random, sizeof random);
    id->random = random;
    id->rand1 = static_cast<uint32_t>(rand());
    id->rand2 = static_cast<uint32_t>(rand());
    id->seq32 = increment(counter32);
    id->seq16 = increment(counter16);
    return 0;
}

extern "C" uint64_t uid_time_seq() {
    const auto seconds = static_cast<uint32_t>(time(nullptr));
    return uint64_t{seconds} << 32 | increment(time_counter);
}

extern "C" char* uid2str_t(const uid* id, char* destination, unsigned size) {
    if (!id || !destination) return nullptr;
    snprintf(destination, size, "%016lx-%08x-%08x-%04x-%08x", id->random, id->rand1, id->seq32,
             id->seq16, id->rand2);
    return destination;
}

extern "C" char* uid2str(const uid* id) { return uid2str_t(id, shared_text, sizeof shared_text); }

extern "C" int uid_to_file(const char* path, const uid* id) {
    char text[UID_TEXT_SIZE];
    if (!path || !uid2str_t(id, text, sizeof text)) return -1;
    const zt::Descriptor file(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    return file && zt::write_all(file.get(), text, strlen(text)) ? 0 : -1;
}

extern "C" int uid_from_file(const char* path, uid* id) {
    char line[kLineSize];
    if (!path || !id || !read_first_line(path, line)) return -1;

    split_result groups;
    if (split(line, static_cast<int>(strlen(line)), '-', &groups) != 0) return -2;
    const bool complete = groups.count == kGroups;
    if (complete) {
        id->random = read_group<uint64_t>(groups.parts[0]);
        id->rand1 = read_group<uint32_t>(groups.parts[1]);
        id->seq32 = read_group<uint32_t>(groups.parts[2]);
        id->seq16 = read_group<uint16_t>(groups.parts[3]);
        id->rand2 = read_group<uint32_t>(groups.parts[4]);
    }
    split_free(&groups, 0);
    return complete ? 0 : -3;
}

extern "C" int _uid_init() {
    const zt::Lock lock(init_mutex, zt::Site{kModule, __func__});
    return initialise();
}
