/* The request path of a client connection: the server's line reader and word
 * splitter (deal_with_data) and the reply and event functions, fed by a
 * client through a socket pair in arbitrary chunks.
 *
 * The command table is this program's own (a link-time replacement of the
 * server's, so no request can reach the hardware): its handlers answer
 * through the real reply functions and echo the words they were given. A
 * model of the protocol predicts every line the client must receive.
 *
 * Input: the first byte seeds the chunking (0: one chunk per line end kept
 * with its line, else pseudo-random chunk sizes), the rest is the byte stream
 * the client sends. */
#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "channels.h"
#include "commands.h"
#include "fuzz_support.h"
#include "mtrace.h"
#include "remote.h"

namespace {

/* ---- the replacement command table ---- */

int g_aborts; /* do_abort(client, -1) calls */

const char* first_argument(int argc, char** argv)
{
    return argc > 1 ? argv[1] : "";
}

/* "<id> data echo <argc> <len>:<word> ...": the words exactly as split. */
int cb_echo(struct client_s* client, int argc, char** argv)
{
    std::string line = std::to_string(client->current_id) + " data echo " + std::to_string(argc);
    for (int i = 0; i < argc; i++)
        line += " " + std::to_string(strlen(argv[i])) + ":" + argv[i];
    line += "\n";
    sock_puts(client->sock, line.c_str());
    return 0;
}

int cb_error(struct client_s* client, int argc, char** argv)
{
    remote_error(client, first_argument(argc, argv));
    return -1;
}

/* A deferred operation that completes at once. */
int cb_later(struct client_s* client, int argc, char** argv)
{
    remote_id_error(client, client->current_id, first_argument(argc, argv));
    remote_id_ready(client, client->current_id);
    return 1;
}

int cb_event(struct client_s* client, int argc, char** argv)
{
    (void)client;
    remote_event(first_argument(argc, argv));
    return 0;
}

} // namespace

/* What the server links against instead of its own command table. */
const struct command_s commands[] = {
    {"echo", cb_echo},
    {"error", cb_error},
    {"later", cb_later},
    {"event", cb_event},
    {NULL, NULL},
};

int do_abort(struct client_s* client, int id)
{
    if (client == remote_client(0) && id == -1)
        g_aborts++;
    return 0;
}

int cb_abort(struct client_s*, int, char**)
{
    return 0;
}

int cb_machine(struct client_s*, int, char**)
{
    return 0;
}

namespace {

/* ---- the model ---- */

constexpr size_t kLineMax = REMOTE_LINE_MAX - 1; /* characters of a request */
constexpr size_t kWordsMax = REMOTE_WORDS_MAX;

struct Expect {
    enum Kind { LINE, READY } kind;
    std::string text; /* LINE: the line; READY: "<id> " */
};

/* Spaces outside double quotes end words; quotes stay. */
std::vector<std::string> model_split(const std::string& s)
{
    std::vector<std::string> words;
    size_t i = 0;
    while (i < s.size()) {
        size_t j = i;
        bool quoted = false;
        while (j < s.size() && (quoted || s[j] != ' ')) {
            if (s[j] == '"')
                quoted = !quoted;
            j++;
        }
        words.push_back(s.substr(i, j - i));
        i = j < s.size() ? j + 1 : j;
    }
    return words;
}

/* A reply line is formatted into the line buffer; a cut one still ends. */
std::string bounded(const std::string& line)
{
    if (line.size() < REMOTE_LINE_MAX)
        return line;
    return line.substr(0, REMOTE_LINE_MAX - 2) + "\n";
}

struct Model {
    std::vector<Expect> client;   /* what the requesting client receives */
    std::vector<std::string> all; /* what every other client receives */
    bool open = true;
    bool discarding = false;
    std::string line;

    void line_out(const std::string& s) { client.push_back({Expect::LINE, s}); }

    /* overlong: the line's first kLineMax bytes; it is refused if it has
     * an id. */
    void request(const std::string& raw, bool overlong = false)
    {
        std::string l(raw.c_str()); /* the reader's string ends at a NUL */
        if (l.empty())
            return;
        if (l[0] == '.' && !overlong) {
            open = false;
            return;
        }
        size_t p = 0;
        uint64_t id = 0;
        while (p < l.size() && l[p] >= '0' && l[p] <= '9')
            id = std::min<uint64_t>(id * 10 + static_cast<uint64_t>(l[p++] - '0'), uint64_t{1} << 32);
        if (p == 0 || p >= l.size() || l[p] != ' ' || id > INT32_MAX)
            return;
        const std::string sid = std::to_string(id);
        const std::vector<std::string> w = model_split(l.substr(p + 1));
        line_out(sid + " ack\n");
        if (overlong || w.size() > kWordsMax) {
            line_out(sid + " error syntax invalid\n");
            client.push_back({Expect::READY, sid + " "});
            return;
        }
        const std::string arg = w.size() > 1 ? w[1] : "";
        bool ready = true;
        const std::string cmd = w.empty() ? std::string("\x01") : w[0];
        if (cmd == "echo") {
            std::string e = sid + " data echo " + std::to_string(w.size());
            for (const std::string& word : w)
                e += " " + std::to_string(word.size()) + ":" + word;
            line_out(e + "\n");
        } else if (cmd == "error") {
            line_out(bounded(sid + " error " + arg + "\n"));
        } else if (cmd == "later") {
            line_out(bounded(sid + " error " + arg + "\n"));
            line_out(sid + " ready\n");
            ready = false;
        } else if (cmd == "event") {
            line_out("0 event " + arg + "\n");
            all.push_back("0 event " + arg + "\n");
        } else {
            line_out(bounded(sid + " error unknown command\n"));
        }
        if (ready)
            client.push_back({Expect::READY, sid + " "});
    }

    /* One chunk as the server sees it: lines end at a line end or where the
     * available data ends; an over-long line is refused and dropped up to
     * its line end. */
    void chunk(const std::string& bytes)
    {
        for (size_t i = 0; i < bytes.size() && open; i++) {
            char c = bytes[i];
            if (c == '\n' || c == '\r') {
                if (!discarding)
                    request(line);
                discarding = false;
                line.clear();
                continue;
            }
            if (discarding)
                continue;
            if (line.size() == kLineMax) {
                request(line, true);
                discarding = true;
                line.clear();
                continue;
            }
            line += c;
        }
        if (open && !discarding && !line.empty())
            request(line);
        line.clear();
    }
};

/* ---- the harness ---- */

void fail(const std::string& what, const std::string& detail)
{
    fz::fail(what + ": [" + detail + "]");
}

void drain(int fd, std::string* out)
{
    char buf[4096];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0)
            return;
        out->append(buf, static_cast<size_t>(n));
    }
}

size_t pending(int fd)
{
    int n = 0;
    if (ioctl(fd, FIONREAD, &n) != 0)
        return 0;
    return static_cast<size_t>(n);
}

/* "<id> ready <s>.<mmm>" */
bool is_ready_line(const std::string& line, const std::string& prefix)
{
    static const std::regex tail(R"(ready \d+\.\d{3}\n)");
    return line.compare(0, prefix.size(), prefix) == 0 && std::regex_match(line.begin() + static_cast<long>(prefix.size()), line.end(), tail);
}

std::vector<std::string> lines_of(const std::string& out)
{
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < out.size()) {
        size_t end = out.find('\n', start);
        if (end == std::string::npos)
            fail("reply without a line end", out.substr(start));
        lines.push_back(out.substr(start, end + 1 - start));
        start = end + 1;
    }
    return lines;
}

void compare(const std::vector<Expect>& expected, const std::string& out)
{
    const std::vector<std::string> got = lines_of(out);
    size_t g = 0;
    for (const Expect& e : expected) {
        if (g >= got.size())
            fail("missing reply", e.text);
        bool ok = e.kind == Expect::LINE ? got[g] == e.text : is_ready_line(got[g], e.text);
        if (!ok)
            fail("expected " + e.text + ", got", got[g]);
        g++;
    }
    if (g != got.size())
        fail("unexpected reply", got[g]);
}

struct Pair {
    int server = -1;
    int client = -1;
    Pair()
    {
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0)
            fail("socketpair", strerror(errno));
        server = sv[0];
        client = sv[1];
        if (setnonblocking(server) != 0 || setnonblocking(client) != 0)
            fail("setnonblocking", strerror(errno));
    }
    ~Pair()
    {
        if (client >= 0)
            close(client);
    }
};

std::vector<std::string> chunks_of(uint8_t seed, const std::string& stream)
{
    std::vector<std::string> chunks;
    if (seed == 0) {
        size_t start = 0;
        while (start < stream.size()) {
            size_t end = stream.find_first_of("\r\n", start);
            end = end == std::string::npos ? stream.size() : end + 1;
            chunks.push_back(stream.substr(start, end - start));
            start = end;
        }
        return chunks;
    }
    /* Sizes from a small generator, so that the mutator changes the split
     * by changing one byte: single bytes up to half a kilobyte. */
    fz::Choices pick(seed);
    const uint32_t limits[] = {1, 8, 64, 512};
    for (size_t start = 0; start < stream.size();) {
        size_t n = 1 + pick.next(limits[pick.next(4)]);
        chunks.push_back(stream.substr(start, n));
        start += n;
    }
    return chunks;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    signal(SIGPIPE, SIG_IGN);
    /* the line's trace texts are formatted too */
    _MTrace_SetLevel("default", 4);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const int descriptors = fz::lowest_free_descriptor();
    if (size == 0)
        return 0;
    const std::string stream(reinterpret_cast<const char*>(data) + 1, size - 1);
    const std::vector<std::string> chunks = chunks_of(data[0], stream);

    Pair conn, other;
    struct client_s* client = remote_client(0);
    struct client_s* observer = remote_client(1);
    client->sock = conn.server;
    client->idx = 0;
    observer->sock = other.server;
    observer->idx = 1;
    g_aborts = 0;

    /* A slot may still be dropping the tail of the last input's long line. */
    if (write(conn.client, "\n", 1) != 1)
        fail("write", strerror(errno));
    deal_with_data(client);

    Model model;
    std::string out, out_other;
    for (const std::string& chunk : chunks) {
        if (client->sock < 0)
            break;
        if (write(conn.client, chunk.data(), chunk.size()) != static_cast<ssize_t>(chunk.size()))
            fail("write", strerror(errno));
        model.chunk(chunk);
        /* one request per call, as the select loop calls it */
        while (client->sock >= 0 && (pending(client->sock) > 0 || client_has_request(client))) {
            deal_with_data(client);
            drain(conn.client, &out);
            drain(other.client, &out_other);
        }
    }
    if ((client->sock >= 0) != model.open)
        fail(model.open ? "the server closed the connection" : "the server kept the connection after a '.' line", "");
    if (client->sock >= 0) {
        /* the client goes away */
        shutdown(conn.client, SHUT_WR);
        do
            deal_with_data(client);
        while (client->sock >= 0 && client_has_request(client));
        if (client->sock >= 0)
            fail("the server kept a closed connection", "");
    }
    drain(conn.client, &out);
    drain(other.client, &out_other);

    compare(model.client, out);
    std::vector<Expect> broadcast;
    for (const std::string& line : model.all)
        broadcast.push_back({Expect::LINE, line});
    compare(broadcast, out_other);
    if (g_aborts != 1)
        fail("the client's operations were not stopped once on closing", std::to_string(g_aborts));

    /* the connection is closed for the client: reading ends */
    char c;
    if (read(conn.client, &c, 1) != 0)
        fail("the connection stayed open", "");

    close(other.server);
    observer->sock = -1;
    client->sock = -1;
    fz::check_descriptors(descriptors);
    MErrTrace_ClearContext();
    return 0;
}
