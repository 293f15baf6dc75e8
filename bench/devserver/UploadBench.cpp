// Upload benchmark: a 256 MiB file sent through the resumable "desktop-upload" interface in
// 4 MiB chunks (libcurl, one kept-alive connection, empty "Expect:" header, as the app sends
// them) against a raw `curl -H 'Expect:' --data-binary @file` of the same file to the same
// server. Prints both throughputs and their ratio.
//
// usage: pavix_devserver_upload_bench [--mib N] [--rounds N] [--dir DIR]
#include "devserver/DevServer.h"
#include "devserver/Digest.h"
#include "devserver/Ids.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

namespace ds = pavix::devserver;
using Clock = std::chrono::steady_clock;

namespace {

constexpr size_t kChunk = 4194304;

double seconds(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double>(b - a).count();
}

size_t collect(char* p, size_t size, size_t n, void* out) {
    static_cast<std::string*>(out)->append(p, size * n);
    return size * n;
}

// One kept-alive connection, like the app's session.
struct Uploader {
    CURL* curl = curl_easy_init();
    std::string base, token;
    ~Uploader() { curl_easy_cleanup(curl); }

    long post(const std::string& path, const char* data, size_t len, const char* type,
              long long offset, std::string* reply) {
        curl_slist* h = nullptr;
        h = curl_slist_append(h, (std::string("Content-Type: ") + type).c_str());
        h = curl_slist_append(h, ("Authorization: Bearer " + token).c_str());
        h = curl_slist_append(h, "X-Pavix-App-Version: 0.1.0");
        h = curl_slist_append(h, "Expect:");
        if (offset >= 0)
            h = curl_slist_append(h, ("X-Pavix-Offset: " + std::to_string(offset)).c_str());
        reply->clear();
        curl_easy_setopt(curl, CURLOPT_URL, (base + "/local-browser/" + path).c_str());
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, h);
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, data);
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(len));
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, reply);
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        CURLcode rc = curl_easy_perform(curl);
        long status = 0;
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
        curl_slist_free_all(h);
        return rc == CURLE_OK ? status : 0;
    }
    long json(const std::string& path, const std::string& body, std::string* reply) {
        return post(path, body.data(), body.size(), "application/json", -1, reply);
    }
};

struct Timing {
    double chunks = 0;  // begin .. last chunk acknowledged
    double total = 0;   // begin .. complete (the service re-reads and hashes the file)
};

Timing uploadOnce(ds::DevServer& server, const std::string& file, size_t bytes,
                  const std::string& sha) {
    auto code = server.tokens().createCode();
    auto identity = server.tokens().pair(code.code, "bench");
    std::string id = server.uploads().issueCapture(identity->deviceId, ds::Ids::uuid());
    Uploader up;
    up.base = server.baseUrl();
    up.token = identity->accessToken;
    int fd = open(file.c_str(), O_RDONLY);
    std::vector<char> buf(kChunk);
    std::string reply;
    auto t0 = Clock::now();
    std::string begin = R"({"bytes":)" + std::to_string(bytes) + R"(,"sha256":")" + sha +
                        R"(","media":{"width":1920,"height":1080,"durationMs":60000}})";
    if (up.json("desktop-upload/" + id + "/begin", begin, &reply) != 200) {
        std::fprintf(stderr, "begin refused: %s\n", reply.c_str());
        std::exit(1);
    }
    for (size_t at = 0; at < bytes; at += kChunk) {
        size_t n = std::min(kChunk, bytes - at);
        if (pread(fd, buf.data(), n, static_cast<off_t>(at)) != static_cast<ssize_t>(n))
            std::exit(1);
        if (up.post("desktop-upload/" + id + "/chunk", buf.data(), n, "application/octet-stream",
                    static_cast<long long>(at), &reply) != 200) {
            std::fprintf(stderr, "chunk refused: %s\n", reply.c_str());
            std::exit(1);
        }
    }
    auto t1 = Clock::now();
    if (up.json("desktop-upload/" + id + "/complete", "{}", &reply) != 200) {
        std::fprintf(stderr, "complete refused: %s\n", reply.c_str());
        std::exit(1);
    }
    auto t2 = Clock::now();
    close(fd);
    std::filesystem::remove(server.uploads().filePath(id));
    return {seconds(t0, t1), seconds(t0, t2)};
}

double rawCurlOnce(const std::string& base, const std::string& key, const std::string& file) {
    std::string cmd =
        "curl -s -S -o /dev/null -H 'Expect:' -H 'Content-Type: application/octet-stream' "
        "-H 'X-Pavix-Agent-Key: " +
        key + "' --data-binary @" + file + " " + base + "/agent/bench/sink";
    auto t0 = Clock::now();
    if (std::system(cmd.c_str()) != 0) {
        std::fprintf(stderr, "raw curl failed\n");
        std::exit(1);
    }
    return seconds(t0, Clock::now());
}

}  // namespace

int main(int argc, char** argv) {
    size_t mib = 256;
    int rounds = 3;
    std::string dir = std::filesystem::temp_directory_path().string();
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string a = argv[i];
        if (a == "--mib")
            mib = std::stoul(argv[i + 1]);
        else if (a == "--rounds")
            rounds = std::stoi(argv[i + 1]);
        else if (a == "--dir")
            dir = argv[i + 1];
    }
    size_t bytes = mib << 20;
    std::string work = dir + "/pavix-upload-bench-" + std::to_string(getpid());
    std::filesystem::create_directories(work);
    std::string file = work + "/video.bin";
    {
        std::mt19937_64 gen(42);
        std::vector<uint64_t> block(kChunk / 8);
        FILE* f = std::fopen(file.c_str(), "wb");
        for (size_t at = 0; at < bytes; at += kChunk) {
            for (auto& w : block)
                w = gen();
            std::fwrite(block.data(), 1, std::min(kChunk, bytes - at), f);
        }
        std::fclose(f);
    }
    auto sha = ds::Digest::sha256File(file, static_cast<int64_t>(bytes));

    curl_global_init(CURL_GLOBAL_DEFAULT);
    ds::Options o;
    o.port = 0;
    o.dataDir = work + "/data";
    o.benchSink = true;
    o.printCode = false;
    ds::DevServer server(o);
    server.start();

    std::vector<double> raw, chunks, total;
    for (int r = 0; r < rounds; ++r) {
        raw.push_back(rawCurlOnce(server.baseUrl(), server.agentKey(), file));
        auto t = uploadOnce(server, file, bytes, *sha);
        chunks.push_back(t.chunks);
        total.push_back(t.total);
    }
    server.stop();
    std::filesystem::remove_all(work);

    auto best = [](const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); };
    double m = static_cast<double>(mib);
    double rawRate = m / best(raw), chunkRate = m / best(chunks), totalRate = m / best(total);
    std::printf("upload of %zu MiB to pavix-devserver on 127.0.0.1, best of %d rounds\n", mib,
                rounds);
    std::printf("  raw curl --data-binary (one request):     %8.1f MiB/s  (%.2f s)\n", rawRate,
                best(raw));
    std::printf("  desktop-upload, 4 MiB chunks:             %8.1f MiB/s  (%.2f s)\n", chunkRate,
                best(chunks));
    std::printf("  desktop-upload incl. complete (SHA-256):  %8.1f MiB/s  (%.2f s)\n", totalRate,
                best(total));
    std::printf("  ratio chunks / raw curl:                  %8.2f\n", chunkRate / rawRate);
    std::printf("  ratio incl. complete / raw curl:          %8.2f\n", totalRate / rawRate);
    return 0;
}
