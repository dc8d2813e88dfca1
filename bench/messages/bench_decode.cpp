// Decoding mail for display: a corpus of 1,000 messages of the shapes mail takes, scanned and rendered
// both ways, against Python's email package parsing and walking (and decoding) the same corpus in the same
// run; and three large messages at two sizes each, whose times must grow with their size only: a 20 MB
// message of 2,000 parts, an HTML part of 2 MB with 100,000 tags and a 10 MB quoted-printable part, and
// each at twice that. (Below about 20 MB the smaller message's work still partly fits the processor's
// caches, and the doubling then measures the cache as well as the decoder.)
//
// Times are the process's CPU time (Python's too), best of three (of five or more for the large messages,
// the two sizes in turn), so that other work on a shared machine does not enter the comparison. The decoder's
// files (a placeholder for each part, each attachment of the HTML rendering) go to a directory of their own
// on tmpfs (/dev/shm), as on systems whose /tmp is one; the corpus is also decoded with them under $TMPDIR
// (else /tmp), whatever file system that is, for comparison: creating and removing thousands of small files
// is then what costs most. Freed memory stays with the process, as in a long-running host: otherwise each
// large message's buffers are mapped and faulted in afresh, which on a virtual machine costs more than
// decoding them.
#include <malloc.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "messages/CMimeDecoder.h"
#include "platform/CArray.h"
#include "platform/Registry.h"
#include "transport/CBase64Coding.h"
#include "transport/CUUCoding.h"
#include "util/CFileManager.h"

namespace {

double cpuMs() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
}

class Mail {
public:
    explicit Mail(unsigned seed) : m_rng(seed) {}
    int Pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(m_rng); }

    // Lines of words, some accented (Latin-1) when eightBit.
    std::string Text(std::size_t bytes, bool eightBit = false) {
        static const char* const kWords[] = {"the",      "mail",   "message", "meeting", "report",
                                             "please",   "thanks", "will",    "send",    "attached",
                                             "tomorrow", "about",  "number",  "price"};
        std::string s;
        std::size_t line = 0;
        while (s.size() < bytes) {
            std::string w = kWords[Pick(static_cast<int>(std::size(kWords)))];
            if (eightBit && Pick(6) == 0) w += "\xE9t\xE9";
            s += w;
            line += w.size() + 1;
            if (line > 66) {
                s += "\r\n";
                line = 0;
            } else {
                s += ' ';
            }
        }
        return s + "\r\n";
    }
    // Quoted-printable text: accents as escapes, '=' escaped, soft breaks at 76 characters.
    std::string QuotedPrintable(std::size_t bytes) {
        std::string plain = Text(bytes, true), out;
        std::size_t column = 0;
        for (std::size_t i = 0; i < plain.size(); ++i) {
            const unsigned char c = static_cast<unsigned char>(plain[i]);
            std::string piece;
            if (c == '\r' && i + 1 < plain.size() && plain[i + 1] == '\n') {
                out += "\r\n";
                ++i;
                column = 0;
                continue;
            }
            if (c >= 128 || c == '=') {
                char hex[4];
                std::snprintf(hex, sizeof hex, "=%02X", c);
                piece = hex;
            } else {
                piece = std::string(1, static_cast<char>(c));
            }
            if (column + piece.size() > 75) {
                out += "=\r\n";
                column = 0;
            }
            out += piece;
            column += piece.size();
        }
        return out;
    }
    std::string Base64(std::size_t bytes) {
        CByteArray data;
        data.SetSize(static_cast<int>(bytes));
        for (BYTE& b : data.vector()) b = static_cast<BYTE>(m_rng());
        CString text;
        CBase64Coding().Encode(data, text);
        return text.str() + "\r\n";
    }
    std::string Uuencoded(std::size_t bytes) {
        CByteArray data;
        data.SetSize(static_cast<int>(bytes));
        for (BYTE& b : data.vector()) b = static_cast<BYTE>(m_rng());
        CString text;
        CUUCoding().Encode(data, text);
        std::string lines = text.str();
        std::replace(lines.begin(), lines.end(), '\r', '\n');
        std::string crlf;
        for (char c : lines) crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
        return crlf;
    }
    std::string Html(std::size_t bytes) {
        std::string s = "<html><body>\r\n";
        while (s.size() < bytes)
            s += "<p>" + Text(60).substr(0, 58) + " <b>" + Text(10).substr(0, 8) + "</b></p>\r\n";
        return s + "</body></html>\r\n";
    }

    static std::string Head(const std::string& contentType, const std::string& encoding = "") {
        std::string h = "Content-Type: " + contentType;
        if (!encoding.empty()) h += "\r\nContent-Transfer-Encoding: " + encoding;
        return h;
    }
    static std::string Multipart(const std::string& subtype, const std::string& boundary,
                                 const std::vector<std::string>& parts) {
        std::string body = "This is a multi-part message in MIME format.\r\n";
        for (const std::string& part : parts) body += "--" + boundary + "\r\n" + part + "\r\n";
        body += "--" + boundary + "--\r\n";
        return Head("multipart/" + subtype + "; boundary=\"" + boundary + "\"") + "\r\n\r\n" + body;
    }
    std::string Envelope(int n) {
        return "Return-Path: <sender" + std::to_string(n) +
               "@example.org>\r\nReceived: from mx.example.org by pop.example.net\r\nFrom: Sender <sender" +
               std::to_string(n) + "@example.org>\r\nTo: you@example.net\r\nSubject: Message " +
               std::to_string(n) + "\r\nDate: Mon, 2 Jun 2025 10:00:00 +0200\r\nMIME-Version: 1.0\r\n";
    }
    std::string Alternative(std::size_t bytes) {
        return Multipart("alternative", "=_alt" + std::to_string(Pick(100000)),
                         {Head("text/plain; charset=iso-8859-1", "quoted-printable") + "\r\n\r\n" +
                              QuotedPrintable(bytes / 2),
                          Head("text/html; charset=iso-8859-1", "quoted-printable") + "\r\n\r\n" +
                              QuotedPrintable(bytes / 2)});
    }
    std::string Attachment(std::size_t bytes) {
        const bool gif = Pick(2);
        return Head(gif ? "image/gif; name=\"photo.gif\"" : "application/pdf; name=\"report.pdf\"",
                    "base64") +
               "\r\nContent-Disposition: attachment\r\n\r\n" + Base64(bytes);
    }

    // One message of the corpus, by shape.
    std::string CorpusMessage(int n) {
        const std::size_t text = 1000 + static_cast<std::size_t>(Pick(8000));
        std::string m = Envelope(n);
        switch (n % 20) {
            case 0:
            case 1:
            case 2:
            case 3:
            case 4:
                return m + Head("text/plain; charset=us-ascii", "7bit") + "\r\n\r\n" + Text(text);
            case 5:
            case 6:
            case 7:
                return m + Head("text/plain; charset=iso-8859-1", "quoted-printable") + "\r\n\r\n" +
                       QuotedPrintable(text);
            case 8:
            case 9:
                return m + Head("text/plain; charset=iso-8859-1", "8bit") + "\r\n\r\n" + Text(text, true);
            case 10:
            case 11:
            case 12:
            case 13:
                return m + Alternative(text);
            case 14:
            case 15:
            case 16:
                return m + Multipart("mixed", "=_mix" + std::to_string(n),
                                     {Head("text/plain", "7bit") + "\r\n\r\n" + Text(text),
                                      Attachment(5000 + static_cast<std::size_t>(Pick(60000)))});
            case 17:
            case 18:
                return m +
                       Multipart("mixed", "=_out" + std::to_string(n),
                                 {Alternative(text), Attachment(2000 + static_cast<std::size_t>(Pick(20000))),
                                  Attachment(2000 + static_cast<std::size_t>(Pick(20000)))});
            default:
                return m + Multipart("mixed", "=_uu" + std::to_string(n),
                                     {Head("text/plain", "7bit") + "\r\n\r\n" + Text(text),
                                      Head("application/octet-stream; name=\"data.bin\"", "x-uuencode") +
                                          "\r\n\r\n" + Uuencoded(3000)});
        }
    }

    // Large cases.
    std::string ManyParts(int parts, std::size_t bytes) {
        std::vector<std::string> list;
        const std::size_t each = bytes / static_cast<std::size_t>(parts);
        for (int i = 0; i < parts; ++i) {
            switch (i % 5) {
                case 0:
                case 1:
                case 2:
                    list.push_back(
                        Head("application/pdf; name=\"file" + std::to_string(i) + ".pdf\"", "base64") +
                        "\r\n\r\n" + Base64(each * 3 / 4));
                    break;
                case 3:
                    list.push_back(Head("text/plain; charset=iso-8859-1", "quoted-printable") + "\r\n\r\n" +
                                   QuotedPrintable(each));
                    break;
                default:
                    list.push_back(Head("text/html") + "\r\n\r\n" + Html(each));
            }
        }
        return Envelope(0) + Multipart("mixed", "=_many", list);
    }
    // An HTML part of about 20 bytes a tag.
    std::string HtmlPart(std::size_t tags) {
        std::string s;
        s.reserve(tags * 20);
        for (std::size_t t = 0; t < tags; t += 2)
            s += t % 8 == 6 ? "<p>the mail message please</p>\r\n" : "<b>the mail message please</b> ";
        return Envelope(0) + Head("text/html; charset=us-ascii", "7bit") + "\r\n\r\n" + s;
    }
    std::string QuotedPrintablePart(std::size_t bytes) {
        return Envelope(0) + Head("text/plain; charset=iso-8859-1", "quoted-printable") + "\r\n\r\n" +
               QuotedPrintable(bytes);
    }

private:
    std::mt19937 m_rng;
};

long maxRssKb() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// Scans the message and renders it both ways (the HTML rendering on a copy of the scanned decoder).
void render(const std::string& message, CFileManager& files) {
    CMimeDecoder text;
    text.m_pFileManager = &files;
    text.m_strMessage = XString(CString(message));
    text.ScanMessage();
    CMimeDecoder html(text);
    text.ReformatText();
    html.ReformatHtml();
    if (text.GetLimits() != 0 || html.GetLimits() != 0) {
        std::fprintf(stderr, "bench_decode: a benchmark message hit a decoder limit (%u)\n",
                     static_cast<unsigned>(text.GetLimits() | html.GetLimits()));
        std::exit(1);
    }
    files.RemoveTempFiles();
}

double bestOf(int runs, const std::function<void()>& f) {
    double best = 1e300;
    for (int i = 0; i < runs; ++i) {
        const double start = cpuMs();
        f();
        best = std::min(best, cpuMs() - start);
    }
    return best;
}

void pair(const char* name, int smallMb, const std::string& small, const std::string& large,
          CFileManager& files) {
    // Turn about, so that both sizes meet the same load on a shared machine; short ones more often, so that
    // a millisecond's disturbance does not make the ratio.
    double a = 1e300, b = 1e300, spent = 0;
    for (int round = 0; round < 5 || (spent < 1000 && round < 100); ++round) {
        const double start = cpuMs();
        a = std::min(a, bestOf(1, [&] { render(small, files); }));
        b = std::min(b, bestOf(1, [&] { render(large, files); }));
        spent += cpuMs() - start;
    }
    std::printf("bench mime_%s_%dmb %.1f ms\n", name, smallMb, a);
    std::printf("bench mime_%s_%dmb %.1f ms\n", name, 2 * smallMb, b);
    // Twice the size in at most 2.2 times the time.
    std::printf("bench mime_%s_scaling ratio %.2f\n", name, b / a);
}

}  // namespace

int main() {
    namespace fs = std::filesystem;
    mallopt(M_MMAP_THRESHOLD, 1 << 30);
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
    auto makeDirectory = [](const std::string& base) {
        std::string pattern = base + "/tavik-bench-decode-XXXXXX";
        if (!mkdtemp(pattern.data())) {
            std::perror("bench_decode: mkdtemp");
            std::exit(1);
        }
        return fs::path(pattern);
    };
    const char* tmpdir = std::getenv("TMPDIR");
    const std::string systemTemp = tmpdir && *tmpdir ? tmpdir : "/tmp";
    const fs::path dir = makeDirectory(fs::is_directory("/dev/shm") ? "/dev/shm" : systemTemp);
    const fs::path diskDir = makeDirectory(systemTemp);
    setenv("TMPDIR", dir.c_str(), 1);
    RegSetStorePath((diskDir / "registry.db").c_str());
    CFileManager files;
    Mail mail(18);

    {
        // First, while the process is small: the memory a scan and the HTML rendering of the 20 MB message
        // cost, over its size.
        const std::string big = mail.ManyParts(2000, 20u << 20);
        const long before = maxRssKb();
        {
            CMimeDecoder decoder;
            decoder.m_pFileManager = &files;
            decoder.m_strMessage = XString(CString(big));
            decoder.ScanMessage();
            decoder.ReformatHtml();
            files.RemoveTempFiles();
        }
        const double grown = static_cast<double>(maxRssKb() - before) * 1024.0;
        std::printf("bench mime_parts_20mb_peak_memory ratio %.2f\n",
                    grown / static_cast<double>(big.size()));
        pair("parts", 20, big, mail.ManyParts(4000, 40u << 20), files);
    }
    pair("html_tags", 2, mail.HtmlPart(100000), mail.HtmlPart(200000), files);
    pair("quoted_printable", 10, mail.QuotedPrintablePart(10u << 20), mail.QuotedPrintablePart(20u << 20),
         files);

    std::vector<std::string> corpus;
    std::size_t corpusBytes = 0;
    for (int i = 0; i < 1000; ++i) {
        corpus.push_back(mail.CorpusMessage(i));
        corpusBytes += corpus.back().size();
    }
    const std::string corpusFile = (diskDir / "corpus").string();
    {
        std::ofstream out(corpusFile, std::ios::binary);
        for (const std::string& m : corpus) {
            char length[12];
            std::snprintf(length, sizeof length, "%010zu\n", m.size());
            out << length << m;
        }
    }
    const double ours = bestOf(3, [&] {
        for (const std::string& m : corpus) render(m, files);
    });
    std::printf("bench mime_corpus_1000_messages %.1f ms\n", ours);
    std::printf("bench mime_corpus_throughput %.1f MB/s\n",
                static_cast<double>(corpusBytes) / 1e6 / (ours / 1e3));
    setenv("TMPDIR", diskDir.c_str(), 1);
    const double onDisk = bestOf(3, [&] {
        for (const std::string& m : corpus) render(m, files);
    });
    std::printf("bench mime_corpus_1000_messages_files_in_system_temp %.1f ms\n", onDisk);

    int status = 0;
    const std::string cmd =
        "/usr/bin/python3 " + std::string(TAVIK_BENCH_DIR) + "/email_walk.py " + corpusFile;
    double python = 0;
    if (FILE* p = popen(cmd.c_str(), "r")) {
        double secs = 0;
        int count = 0;
        unsigned long long decoded = 0;
        if (std::fscanf(p, "%lf %d %llu", &secs, &count, &decoded) == 3 && count == 1000) python = secs * 1e3;
        pclose(p);
    }
    if (python > 0) {
        std::printf("bench python_email_corpus_1000_messages %.1f ms\n", python);
        // Lower is better: our scan and both renderings over Python's parse, walk and decode; target < 1.
        std::printf("bench mime_corpus_vs_python_email ratio %.3f\n", ours / python);
        std::printf("bench mime_corpus_files_in_system_temp_vs_python_email ratio %.3f\n", onDisk / python);
    } else {
        std::fprintf(stderr, "bench_decode: the Python reference did not run (%s)\n", cmd.c_str());
        status = 1;
    }
    RegCloseStore();
    fs::remove_all(dir);
    fs::remove_all(diskDir);
    return status;
}
