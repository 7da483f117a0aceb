// Reading a 256 MiB file from the PC: through NetworkFileSystem and dm-fileserver (a second
// process) in 1 MiB and in 16 MiB reads, next to a plain local read of the same file and to
// nginx serving it to curl over loopback (skipped when either is not installed). Also the time
// of 10,000 fileExists calls. One table; medians of 5 runs, taken in turns.
//
//   fs_read_bench                 unpinned
//   taskset -c 0 fs_read_bench    everything (the server and nginx too) on one core
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "dm/comm.h"
#include "dm/fs.h"
#include "net/listener.h"
#include "zu/memory.h"

namespace {

constexpr uint64_t kFileSize = 256ull << 20;
constexpr int kRuns = 5;
constexpr int kExistsCalls = 10000;

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? 0.0 : values[values.size() / 2];
}

uint32_t freePort() {
    net::Listener probe(0, "127.0.0.1");
    return probe.getPort();
}

pid_t spawn(const std::vector<std::string>& args, bool quiet) {
    const pid_t pid = fork();
    if (pid == 0) {
        if (quiet) {
            const int devNull = open("/dev/null", O_WRONLY);
            dup2(devNull, STDOUT_FILENO);
            dup2(devNull, STDERR_FILENO);
        }
        std::vector<char*> argv;
        for (const std::string& arg : args) {
            argv.push_back(const_cast<char*>(arg.c_str()));
        }
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

void stop(pid_t pid) {
    if (pid > 0) {
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
    }
}

bool makeFile(const std::string& path) {
    std::vector<char> block(1 << 20);
    for (size_t i = 0; i < block.size(); ++i) {
        block[i] = static_cast<char>(i * 31);
    }
    FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) {
        return false;
    }
    for (uint64_t done = 0; done < kFileSize; done += block.size()) {
        std::fwrite(block.data(), 1, block.size(), file);
    }
    return std::fclose(file) == 0;
}

// MiB/s of reading the whole file through `fs` in reads of `chunk` bytes.
double readRate(zu::FileSystem& fs, const char* path, uint64_t chunk, std::vector<char>& buffer) {
    const Clock::time_point start = Clock::now();
    zu::FileHandle* file = fs.openFile(path, zu::BaseFile::ModeRead);
    uint64_t total = 0;
    while (file != nullptr) {
        const uint64_t got = fs.readFile(file, buffer.data(), chunk);
        total += got;
        if (got < chunk) {
            break;
        }
    }
    if (file != nullptr) {
        fs.closeFile(file);
    }
    return total == kFileSize ? (kFileSize / 1048576.0) / secondsSince(start) : 0.0;
}

bool hasProgram(const char* name) {
    const std::string probe = std::string("command -v ") + name + " >/dev/null 2>&1";
    return std::system(probe.c_str()) == 0;
}

// nginx with a configuration of its own on a free loopback port, serving `root`.
struct Nginx {
    pid_t pid = -1;
    uint32_t port = 0;

    bool start(const std::string& folder, const std::string& root) {
        port = freePort();
        const std::string config = folder + "/nginx.conf";
        FILE* file = std::fopen(config.c_str(), "w");
        if (file == nullptr) {
            return false;
        }
        std::fprintf(file,
                     "daemon off; master_process off; worker_processes 1;\n"
                     "pid %s/nginx.pid; error_log %s/error.log;\n"
                     "events { worker_connections 16; }\n"
                     "http { access_log off; sendfile on; tcp_nopush on;\n"
                     "  client_body_temp_path %s/t1; proxy_temp_path %s/t2;\n"
                     "  fastcgi_temp_path %s/t3; uwsgi_temp_path %s/t4; scgi_temp_path %s/t5;\n"
                     "  server { listen 127.0.0.1:%u; root %s; } }\n",
                     folder.c_str(), folder.c_str(), folder.c_str(), folder.c_str(), folder.c_str(),
                     folder.c_str(), folder.c_str(), port, root.c_str());
        std::fclose(file);
        pid = spawn({"nginx", "-p", folder, "-c", config}, true);
        for (int attempt = 0; attempt < 100; ++attempt) {
            if (fetchSeconds() > 0) {
                return true;
            }
            usleep(50000);
        }
        return false;
    }

    // Seconds curl took to fetch the whole file (its own transfer time), 0 on failure.
    double fetchSeconds() const {
        const std::string command =
            "curl -s -o /dev/null -w '%{http_code} %{size_download} "
            "%{time_total}' http://127.0.0.1:" +
            std::to_string(port) + "/big.bin";
        FILE* output = popen(command.c_str(), "r");
        if (output == nullptr) {
            return 0;
        }
        int code = 0;
        unsigned long long size = 0;
        double seconds = 0;
        const int fields = std::fscanf(output, "%d %llu %lf", &code, &size, &seconds);
        pclose(output);
        return fields == 3 && code == 200 && size == kFileSize ? seconds : 0;
    }
};

}  // namespace

int main() {
    char folderTemplate[] = "/tmp/dm-fs-bench-XXXXXX";
    if (mkdtemp(folderTemplate) == nullptr) {
        return 1;
    }
    const std::string folder = folderTemplate;
    const std::string assets = folder + "/assets";
    chmod(folder.c_str(), 0755);  // nginx's worker may run as another user
    mkdir(assets.c_str(), 0755);
    if (!makeFile(assets + "/big.bin")) {
        return 1;
    }
    const uint32_t port = freePort();
    const pid_t server = spawn(
        {DM_FILESERVER_TOOL, "--port", std::to_string(port), "--map", "data/=" + assets}, true);
    dm::CommunicationPipeManager* manager =
        dm::initCommunicationManagerAsClient("bench game", "127.0.0.1", static_cast<int>(port));
    dm::CommunicationPipe* pipe = manager->getPipe("fileserver");
    for (int attempt = 0; attempt < 200 && !pipe->isConnected(); ++attempt) {
        usleep(50000);
    }
    if (!pipe->isConnected()) {
        std::printf("dm-fileserver did not start\n");
        stop(server);
        return 1;
    }
    auto* network = zu::newObject<dm::NetworkFileSystem>(zu::getLocalFileSystem());
    zu::FileSystem& local = zu::getLocalFileSystem();
    const std::string localPath = assets + "/big.bin";

    Nginx nginx;
    const bool withNginx = hasProgram("nginx") && hasProgram("curl") && nginx.start(folder, assets);

    std::vector<char> buffer(16u << 20);
    std::vector<double> network1, network16, local16, nginxRates;
    for (int run = 0; run < kRuns; ++run) {
        network1.push_back(readRate(*network, "data/big.bin", 1u << 20, buffer));
        network16.push_back(readRate(*network, "data/big.bin", 16u << 20, buffer));
        local16.push_back(readRate(local, localPath.c_str(), 16u << 20, buffer));
        if (withNginx) {
            const double seconds = nginx.fetchSeconds();
            nginxRates.push_back(seconds > 0 ? (kFileSize / 1048576.0) / seconds : 0.0);
        }
    }
    std::vector<double> existsTimes;
    for (int run = 0; run < kRuns; ++run) {
        const Clock::time_point start = Clock::now();
        for (int call = 0; call < kExistsCalls; ++call) {
            network->fileExists("data/big.bin");
        }
        existsTimes.push_back(secondsSince(start));
    }

    const double nginxMedian = median(nginxRates);
    const auto ratio = [&](double rate) {
        return withNginx && nginxMedian > 0 ? rate / nginxMedian : 0.0;
    };
    std::printf("Reading a 256 MiB file (median of %d runs, MiB/s; ratio to nginx-to-curl)\n",
                kRuns);
    std::printf("%-44s %10s %8s\n", "way", "MiB/s", "x nginx");
    const auto row = [&](const char* name, double rate) {
        std::printf("%-44s %10.0f %8.2f\n", name, rate, ratio(rate));
    };
    row("NetworkFileSystem + dm-fileserver, 1 MiB", median(network1));
    row("NetworkFileSystem + dm-fileserver, 16 MiB", median(network16));
    row("local file system, 16 MiB reads", median(local16));
    if (withNginx) {
        row("nginx -> curl over loopback", nginxMedian);
    } else {
        std::printf("%-44s %10s\n", "nginx -> curl over loopback",
                    "skipped (nginx or curl missing)");
    }
    const double existsSeconds = median(existsTimes);
    std::printf("%d fileExists calls: %.1f ms (%.1f us each)\n", kExistsCalls, existsSeconds * 1e3,
                existsSeconds * 1e6 / kExistsCalls);

    dm::NetworkFileSystem::deleteInstance();
    dm::deinitCommunicationManagers();
    stop(nginx.pid);
    stop(server);
    const std::string remove = "rm -rf '" + folder + "'";
    return std::system(remove.c_str()) == 0 ? 0 : 1;
}
