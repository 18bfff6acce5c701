// Decoding and encoding of three everyday messages, against libknot and ldns in the same
// run, as messages per second, with the ratios printed at the end.
//
// Each peer is used the way its own documentation shows: libknot parses into a packet made
// per message with the default allocator and writes the same records into a reused packet
// (with its name compression); ldns parses with ldns_wire2pkt and writes with ldns_pkt2wire.
// Before timing, every writer's output is decoded again and checked to carry the message.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

extern "C" {
#include <libknot/libknot.h>
}
#include <ldns/ldns.h>

#include "dns/DNSMessageDecoder.h"
#include "dns/DNSMessageEncoder.h"

namespace {

using namespace morvane::dns;

std::vector<std::uint8_t> fromHex(const char* hex) {
    std::vector<std::uint8_t> bytes;
    std::string digits;
    for (const char* c = hex; *c != '\0'; ++c) {
        if (*c != ' ') {
            digits += *c;
        }
    }
    for (std::size_t index = 0; index + 1 < digits.size(); index += 2) {
        bytes.push_back(
            static_cast<std::uint8_t>(std::stoul(digits.substr(index, 2), nullptr, 16)));
    }
    return bytes;
}

struct Sample {
    const char* name;
    std::vector<std::uint8_t> wire;
};

const std::vector<Sample>& samples() {
    static const std::vector<Sample> all = {
        // A stub's question: www.example.com A, recursion desired.
        {"query", fromHex("1f2e 0100 0001 0000 0000 0000"
                          "03 777777 07 6578616d706c65 03 636f6d 00 0001 0001")},
        // A delegation: two NS records and their glue, every name compressed.
        {"referral", fromHex("1234 8100 0001 0000 0002 0002"
                             "03 777777 07 6578616d706c65 03 636f6d 00 0001 0001"
                             "c010 0002 0001 0002a300 0006 03 6e7331 c010"
                             "c010 0002 0001 0002a300 0006 03 6e7332 c010"
                             "c02d 0001 0001 0002a300 0004 c0000201"
                             "c03f 001c 0001 0002a300 0010 20010db8000000000000000000000053")},
        // A CNAME to a CDN name and its two addresses, with EDNS: 1232 bytes, DO, a cookie.
        {"answer+opt", fromHex("5a5a 8180 0001 0003 0000 0001"
                               "03 777777 07 6578616d706c65 03 636f6d 00 0001 0001"
                               "c00c 0005 0001 0000012c 0006 03 63646e c010"
                               "c02d 0001 0001 0000003c 0004 c0000201"
                               "c02d 0001 0001 0000003c 0004 c0000202"
                               "00 0029 04d0 00008000 001c 000a 0018"
                               "0102030405060708 0102030405060708090a0b0c0d0e0f10")},
    };
    return all;
}

[[noreturn]] void giveUp(const std::string& why) {
    std::fprintf(stderr, "dns_codec_bench: %s\n", why.c_str());
    std::exit(1);
}

// --- ours

DNSMessage decodeOurs(const std::vector<std::uint8_t>& wire) {
    DNSMessageDecoder decoder;
    decoder.decodeMessageInBuffer(wire.data(), static_cast<std::uint32_t>(wire.size()));
    if (!decoder.message()) {
        giveUp("sample does not decode");
    }
    return *decoder.takeMessage();
}

void oursDecode(benchmark::State& state, const Sample& sample) {
    for (auto _ : state) {
        DNSMessageDecoder decoder;
        decoder.decodeMessageInBuffer(sample.wire.data(),
                                      static_cast<std::uint32_t>(sample.wire.size()));
        benchmark::DoNotOptimize(decoder.message());
    }
}

// Into one buffer reused from message to message, as libknot writes into a reused packet.
void oursEncode(benchmark::State& state, const Sample& sample) {
    const DNSMessage message = decodeOurs(sample.wire);
    std::vector<std::uint8_t> wire;
    for (auto _ : state) {
        DNSMessageEncoder::encode(message, wire);
        benchmark::DoNotOptimize(wire.data());
    }
}

// --- libknot

knot_pkt_t* parseKnot(const std::vector<std::uint8_t>& wire) {
    knot_pkt_t* packet = knot_pkt_new(const_cast<std::uint8_t*>(wire.data()),
                                      static_cast<std::uint16_t>(wire.size()), nullptr);
    if (packet == nullptr || knot_pkt_parse(packet, 0) != KNOT_EOK) {
        giveUp("libknot does not parse a sample");
    }
    return packet;
}

void knotDecode(benchmark::State& state, const Sample& sample) {
    std::vector<std::uint8_t> wire = sample.wire;
    for (auto _ : state) {
        knot_pkt_t* packet =
            knot_pkt_new(wire.data(), static_cast<std::uint16_t>(wire.size()), nullptr);
        benchmark::DoNotOptimize(knot_pkt_parse(packet, 0));
        knot_pkt_free(packet);
    }
}

bool writeKnot(const knot_pkt_t* source, knot_pkt_t* target) {
    knot_pkt_clear(target);
    const std::uint8_t* in = source->wire;
    std::uint8_t* out = target->wire;
    knot_wire_set_id(out, knot_wire_get_id(in));
    const std::uint8_t flags1 = knot_wire_get_flags1(in);
    const std::uint8_t flags2 = knot_wire_get_flags2(in);
    if (flags1 & 0x80)
        knot_wire_set_qr(out);
    if (flags1 & 0x04)
        knot_wire_set_aa(out);
    if (flags1 & 0x02)
        knot_wire_set_tc(out);
    if (flags1 & 0x01)
        knot_wire_set_rd(out);
    if (flags2 & 0x80)
        knot_wire_set_ra(out);
    if (flags2 & 0x20)
        knot_wire_set_ad(out);
    if (flags2 & 0x10)
        knot_wire_set_cd(out);
    knot_wire_set_opcode(out, static_cast<short>(flags1 >> 3 & 0x0f));
    knot_wire_set_rcode(out, static_cast<short>(flags2 & 0x0f));
    if (knot_pkt_put_question(target, knot_pkt_qname(source), knot_pkt_qclass(source),
                              knot_pkt_qtype(source)) != KNOT_EOK) {
        return false;
    }
    for (const knot_section_t section : {KNOT_ANSWER, KNOT_AUTHORITY, KNOT_ADDITIONAL}) {
        if (knot_pkt_begin(target, section) != KNOT_EOK) {
            return false;
        }
        const knot_pktsection_t* records = knot_pkt_section(source, section);
        for (std::uint16_t index = 0; index < records->count; ++index) {
            if (knot_pkt_put(target, 0, knot_pkt_rr(records, index), 0) != KNOT_EOK) {
                return false;
            }
        }
    }
    return true;
}

void knotEncode(benchmark::State& state, const Sample& sample) {
    knot_pkt_t* source = parseKnot(sample.wire);
    knot_pkt_t* target = knot_pkt_new(nullptr, 4096, nullptr);
    for (auto _ : state) {
        benchmark::DoNotOptimize(writeKnot(source, target));
    }
    knot_pkt_free(target);
    knot_pkt_free(source);
}

// --- ldns

void ldnsDecode(benchmark::State& state, const Sample& sample) {
    for (auto _ : state) {
        ldns_pkt* packet = nullptr;
        benchmark::DoNotOptimize(ldns_wire2pkt(&packet, sample.wire.data(), sample.wire.size()));
        ldns_pkt_free(packet);
    }
}

void ldnsEncode(benchmark::State& state, const Sample& sample) {
    ldns_pkt* packet = nullptr;
    if (ldns_wire2pkt(&packet, sample.wire.data(), sample.wire.size()) != LDNS_STATUS_OK) {
        giveUp("ldns does not parse a sample");
    }
    for (auto _ : state) {
        std::uint8_t* wire = nullptr;
        std::size_t size = 0;
        benchmark::DoNotOptimize(ldns_pkt2wire(&wire, packet, &size));
        std::free(wire);
    }
    ldns_pkt_free(packet);
}

// --- checks before timing

// Names and data as our decoder sees them; writers may compress differently, so messages are
// compared decoded, not byte for byte.
std::string describe(const DNSMessage& message) {
    std::string text = std::to_string(message.header.id) + " " +
                       std::to_string(message.header.isQuery) +
                       std::to_string(message.header.responseCode) +
                       std::to_string(message.header.recursionDesired) +
                       std::to_string(message.header.recursionAvailable) + "\n";
    if (message.questions) {
        for (const auto& question : *message.questions) {
            text += question.name + " " + std::to_string(question.type) + "\n";
        }
    }
    for (const auto* records :
         {&message.answers, &message.authorityRecords, &message.additionalRecords}) {
        text += "--\n";
        if (*records) {
            for (const auto& record : **records) {
                text += record->name + " " + std::to_string(record->type) + " " +
                        std::to_string(record->ttl) + " " + std::to_string(record->data.size()) +
                        "\n";
            }
        }
    }
    return text;
}

void checkWriters() {
    for (const Sample& sample : samples()) {
        const std::string expected = describe(decodeOurs(sample.wire));
        if (describe(decodeOurs(DNSMessageEncoder::encode(decodeOurs(sample.wire)))) != expected) {
            giveUp(std::string("our writer changes ") + sample.name);
        }
        knot_pkt_t* source = parseKnot(sample.wire);
        knot_pkt_t* target = knot_pkt_new(nullptr, 4096, nullptr);
        if (!writeKnot(source, target) ||
            describe(decodeOurs({target->wire, target->wire + target->size})) != expected) {
            giveUp(std::string("libknot writes something else for ") + sample.name);
        }
        knot_pkt_free(target);
        knot_pkt_free(source);

        ldns_pkt* packet = nullptr;
        std::uint8_t* wire = nullptr;
        std::size_t size = 0;
        if (ldns_wire2pkt(&packet, sample.wire.data(), sample.wire.size()) != LDNS_STATUS_OK ||
            ldns_pkt2wire(&wire, packet, &size) != LDNS_STATUS_OK ||
            describe(decodeOurs({wire, wire + size})) != expected) {
            giveUp(std::string("ldns writes something else for ") + sample.name);
        }
        std::free(wire);
        ldns_pkt_free(packet);
    }
}

// --- report: the usual table, then messages per second side by side with the ratios

class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            // CPU time, not wall time: the machine is shared, and waiting for a core is no
            // part of the codec's cost.
            if (run.run_type == Run::RT_Iteration && run.cpu_accumulated_time > 0) {
                rates_[run.run_name.function_name].push_back(static_cast<double>(run.iterations) /
                                                             run.cpu_accumulated_time);
            }
        }
    }

    void printRatios() const {
        std::printf("\nMedian of the repetitions, messages per second of CPU time\n");
        std::printf("%-8s %-11s %14s %14s %14s %10s %10s\n", "", "message", "morvane", "libknot",
                    "ldns", "vs knot", "vs ldns");
        for (const char* operation : {"decode", "encode"}) {
            for (const Sample& sample : samples()) {
                const std::string key = std::string(operation) + "/" + sample.name + "/";
                const double ours = median(key + "morvane");
                const double knot = median(key + "libknot");
                const double ldns = median(key + "ldns");
                std::printf("%-8s %-11s %14.0f %14.0f %14.0f %9.2fx %9.2fx\n", operation,
                            sample.name, ours, knot, ldns, knot > 0 ? ours / knot : 0.0,
                            ldns > 0 ? ours / ldns : 0.0);
            }
        }
    }

private:
    double median(const std::string& name) const {
        const auto found = rates_.find(name);
        if (found == rates_.end() || found->second.empty()) {
            return 0.0;
        }
        std::vector<double> rates = found->second;
        std::sort(rates.begin(), rates.end());
        return rates[rates.size() / 2];
    }

    std::map<std::string, std::vector<double>> rates_;
};

}  // namespace

int main(int argc, char** argv) {
    checkWriters();
    using Benchmark = void (*)(benchmark::State&, const Sample&);
    const std::pair<const char*, std::pair<Benchmark, Benchmark>> libraries[] = {
        {"morvane", {oursDecode, oursEncode}},
        {"libknot", {knotDecode, knotEncode}},
        {"ldns", {ldnsDecode, ldnsEncode}},
    };
    for (const char* operation : {"decode", "encode"}) {
        const bool decoding = std::string(operation) == "decode";
        for (const Sample& sample : samples()) {
            for (const auto& [library, functions] : libraries) {
                benchmark::RegisterBenchmark(
                    (std::string(operation) + "/" + sample.name + "/" + library).c_str(),
                    decoding ? functions.first : functions.second, sample)
                    ->Repetitions(5)
                    ->MinTime(0.2);
            }
        }
    }
    // Repetitions of all three libraries are shuffled together, so that a busy moment of the
    // machine does not fall on one library only.
    std::string interleave = "--benchmark_enable_random_interleaving=true";
    std::vector<char*> arguments;
    arguments.reserve(static_cast<std::size_t>(argc) + 1);
    for (int index = 0; index < argc; ++index) {
        arguments.push_back(argv[index]);
        if (index == 0) {
            arguments.push_back(interleave.data());
        }
    }
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printRatios();
    benchmark::Shutdown();
    return 0;
}
