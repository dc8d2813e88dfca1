#include "host/SampleMailbox.h"

#include <cstdio>

namespace tavik::host {

namespace {

struct Sample {
    const char* from;
    const char* subject;
    const char* body;
    bool junk;
    const char* extra = "";  // header fields of its own, CRLF-ended
};

const Sample kSamples[] = {
    {"Ann Porter <ann.porter@example.org>", "Lunch on Friday?",
     "Hi,\r\n\r\nShall we try the new place by the river on Friday at noon?\r\n\r\nAnn\r\n", false},
    {"\"WINNER NOTIFICATION\" <claims@prize-centre.example>", "You have WON $1,000,000 !!!",
     "Dear winner,\r\n\r\nSend your bank details to claim your prize today.\r\n", true},
    {"Build Robot <ci@builds.example.com>", "Nightly build 1841 passed",
     "All 2,314 tests passed.\r\n.\r\nDuration: 41 minutes.\r\n", false},
    {"Pharmacy Deals <deals@cheap-meds.example>", "Cheap meds, no prescription",
     "Lowest prices online. Click here: http://cheap-meds.example/\r\n", true},
    {"Tom Reyes <tom@reyes-family.example>", "Photos from the weekend",
     "Here are the pictures I promised.\r\n\r\n--\r\nTom\r\n", false},
    {"Security Team <no-reply@paypa1-secure.example>", "Your account has been suspended",
     "We noticed unusual activity. Verify your password within 24 hours:\r\n"
     "http://paypa1-secure.example/verify\r\n",
     true},
    {"Kernel Digest <digest@lists.example.net>", "Weekly digest, issue 212",
     "In this issue:\r\n 1. Scheduler changes\r\n 2. New file systems\r\n..and more\r\n", false,
     "List-Id: Kernel digest <digest.lists.example.net>\r\nPrecedence: list\r\n"},
    {"Rolex Replica <sales@watches4u.example>", "Luxury watches at 90% off",
     "Best replica watches. Buy 2 get 1 free!\r\n", true},
    {"Maria Lind <m.lind@example.com>", "Re: quarterly figures",
     "Thanks, the numbers look right to me.\r\n\r\n> Could you check the attached figures?\r\n", false},
    {"Dr. Okafor <barrister.okafor@mail.example>", "URGENT BUSINESS PROPOSAL",
     "I am a barrister and need your help moving $25,500,000 abroad.\r\n", true},
    {"Library <notices@citylibrary.example.org>", "Your loan is due in 3 days",
     "\"The Mythical Man-Month\" is due on 6 November.\r\n", false},
    {"Hot Singles <meet@singles-nearby.example>", "3 singles near you want to meet",
     "Click to see their profiles.\r\n", true},
    {"Jane Doe <jane.doe@customer.example>", "Question about my order 4471",
     "Hello,\r\n\r\nI ordered a lamp two weeks ago. When will it ship?\r\n\r\nJane\r\n", false},
    {"Shop News <news@lists.shop.example>", "Your order history is now online",
     "See every order you placed at https://shop.example/orders\r\n", false,
     "List-Id: Shop news <news.lists.shop.example>\r\n"
     "List-Unsubscribe: <mailto:leave@lists.shop.example>\r\nPrecedence: bulk\r\n"},
};

}  // namespace

std::vector<SampleMessage> MakeSampleMailbox() {
    std::vector<SampleMessage> box;
    int i = 0;
    for (const Sample& s : kSamples) {
        ++i;
        std::string from = s.from;
        std::string address = from.substr(from.find('<') + 1);
        address.erase(address.find('>'));
        char head[1024];
        std::snprintf(
            head, sizeof head,
            "Return-Path: <%s>\r\n"
            "Received: from mx%d.example by demo.tavik.invalid; Mon, 2 Nov 2026 %02d:%02d:00 +0000\r\n"
            "From: %s\r\n"
            "To: Demo User <demo@tavik.invalid>\r\n"
            "Subject: %s\r\n"
            "Date: Mon, 2 Nov 2026 %02d:%02d:00 +0000\r\n"
            "Message-ID: <%d.demo@tavik.invalid>\r\n"
            "MIME-Version: 1.0\r\n"
            "Content-Type: text/plain; charset=us-ascii\r\n%s",
            s.junk ? "bounce@bulk.example" : address.c_str(), i % 3 + 1, 8 + i, i * 7 % 60, s.from, s.subject,
            8 + i, i * 7 % 60, i, s.extra);
        box.push_back({std::string(head) + "\r\n" + s.body, s.junk});
    }
    return box;
}

}  // namespace tavik::host
