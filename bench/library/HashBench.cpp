// Fingerprint benchmark: CaptureTransfer::fingerprintFile (SHA-256 read in 4 MiB pieces through
// OpenSSL) against the system's `sha256sum` on the same file, page cache warm. Checks that both
// digests agree, prints the best and median throughput of each over three runs and their ratio,
// and the growth of this process's peak resident memory across the fingerprints, which the 4 MiB
// piece should bound whatever the file's size.
//
// usage: pavix_hash_bench [--mib N] [--dir DIR]     (N from 1 to 256, default 256)
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "Spawn.h"
#include "core/library/CaptureTransfer.h"

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

namespace {

constexpr int kRuns = 3;
// Writing and warming use a small buffer so that they do not raise the peak resident memory the
// fingerprint is measured against.
constexpr std::size_t kSmallBuffer = 64 * 1024;

double seconds(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double>(b - a).count();
}

long peakKiB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "pavix_hash_bench: %s\n", what.c_str());
    std::exit(1);
}

void writeRandomFile(const fs::path& file, std::size_t bytes) {
    FILE* out = std::fopen(file.c_str(), "wb");
    if (!out) {
        fail("cannot create " + file.string());
    }
    std::mt19937_64 gen(42);
    std::vector<std::uint64_t> block(kSmallBuffer / 8);
    for (std::size_t at = 0; at < bytes; at += kSmallBuffer) {
        for (auto& word : block) {
            word = gen();
        }
        auto n = std::min(kSmallBuffer, bytes - at);
        if (std::fwrite(block.data(), 1, n, out) != n) {
            fail("cannot write " + file.string());
        }
    }
    if (std::fclose(out) != 0) {
        fail("cannot write " + file.string());
    }
}

// Reads the whole file once so that every timed run finds it in the page cache.
void warm(const fs::path& file) {
    int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        fail("cannot open " + file.string());
    }
    std::vector<char> buffer(kSmallBuffer);
    while (::read(fd, buffer.data(), buffer.size()) > 0) {
    }
    ::close(fd);
}

std::string digestOf(const fs::path& file) {
    auto digest = pavix::bench::sha256sum(file.string());
    if (!digest) {
        fail("sha256sum failed");
    }
    return *digest;
}

struct Figures {
    double best = 0;
    double median = 0;
};

// Throughput in MiB/s from the run times.
Figures rates(std::vector<double> times, double mib) {
    std::sort(times.begin(), times.end());
    return {mib / times.front(), mib / times[times.size() / 2]};
}

}  // namespace

int main(int argc, char** argv) {
    std::size_t mib = 256;
    fs::path dir = fs::temp_directory_path();
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string a = argv[i];
        if (a == "--mib") {
            mib = std::stoul(argv[i + 1]);
        } else if (a == "--dir") {
            dir = argv[i + 1];
        }
    }
    const auto limitMib = static_cast<std::size_t>(pavix::CaptureTransfer::kUploadLimit >> 20);
    if (mib < 1 || mib > limitMib) {
        fail("--mib must be between 1 and " + std::to_string(limitMib) +
             " (larger files are not fingerprinted)");
    }
    const std::size_t bytes = mib << 20;
    std::string pattern = (dir / "pavix-hash-bench.XXXXXX").string();
    if (!::mkdtemp(pattern.data())) {
        fail("cannot create a folder in " + dir.string());
    }
    const fs::path work = pattern;
    const fs::path file = work / "video.bin";
    writeRandomFile(file, bytes);
    warm(file);

    // OpenSSL sets itself up on first use; a one-byte file keeps that out of the memory figure.
    const fs::path tiny = work / "tiny.bin";
    writeRandomFile(tiny, 1);
    pavix::CaptureTransfer::fingerprintFile(tiny);

    // Once untimed each, which also checks that they agree.
    const long before = peakKiB();
    auto print = pavix::CaptureTransfer::fingerprintFile(file);
    const std::string reference = digestOf(file);
    if (print.bytes != static_cast<std::int64_t>(bytes)) {
        fail("the fingerprint counted " + std::to_string(print.bytes) + " bytes");
    }
    const bool same = print.sha256 == reference;

    std::vector<double> pavixTimes, systemTimes;
    for (int run = 0; run < kRuns; ++run) {
        auto t0 = Clock::now();
        auto again = pavix::CaptureTransfer::fingerprintFile(file);
        auto t1 = Clock::now();
        auto other = digestOf(file);
        auto t2 = Clock::now();
        if (again.sha256 != print.sha256 || other != reference) {
            fail("a digest changed between runs");
        }
        pavixTimes.push_back(seconds(t0, t1));
        systemTimes.push_back(seconds(t1, t2));
    }
    const long after = peakKiB();
    fs::remove_all(work);

    const double m = static_cast<double>(mib);
    auto own = rates(pavixTimes, m);
    auto system = rates(systemTimes, m);
    std::printf("SHA-256 of %zu MiB (page cache warm), %d runs each\n", mib, kRuns);
    std::printf("  digests %s: %s\n", same ? "equal" : "DIFFER", print.sha256.c_str());
    if (!same) {
        std::printf("  sha256sum printed   %s\n", reference.c_str());
    }
    std::printf("  CaptureTransfer::fingerprintFile  best %8.1f MiB/s  median %8.1f MiB/s\n",
                own.best, own.median);
    std::printf("  sha256sum                         best %8.1f MiB/s  median %8.1f MiB/s\n",
                system.best, system.median);
    std::printf("  ratio pavix / sha256sum           best %8.2f        median %8.2f\n",
                own.best / system.best, own.median / system.median);
    std::printf("  peak RSS growth over %d fingerprints: %ld KiB (piece %lld KiB, file %zu KiB)\n",
                kRuns + 1, after - before,
                static_cast<long long>(pavix::CaptureTransfer::kChunkSize >> 10), bytes >> 10);
    return same ? 0 : 1;
}
