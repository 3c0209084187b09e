// What must have arrived at the cloud. The model knows what the daemon says that it collected, dropped and
// got accepted, and reads what the cloud accepted; the two have to agree.
#pragma once

#include <deque>
#include <map>
#include <string>
#include <vector>

#include "chaos_world.h"

namespace chaos {

// By record.
using Payloads = std::map<std::string, std::vector<std::string>>;

class Model {
  public:
    explicit Model(World &world) : world_(world) {}
    // Reads what has arrived since the last time: whole requests with valid signatures, records in the order
    // of the cycles, nothing twice within a cycle, no setting older than one that came before. Records come
    // again only after an upload whose answer the daemon did not get, or with one that was sent while the
    // other was on its way. Throws Finding.
    void read();
    // With an empty list and nothing on its way: every record that was collected is at the cloud, or was
    // dropped and counted.
    void balance(const Status &status);

    Payloads since_mark; // what came since somebody cleared it
    long posts = 0, records = 0;
    long repeated_posts = 0; // that began with records of the one before, which had ended

  private:
    struct Post {
        std::vector<lab::CloudRecord> records;
        long sent = 0; // s, by the cloud's clock
    };
    void read_requests();
    void take(const Post &post);
    void take_record(const lab::CloudRecord &record);

    World &world_;
    Post last_;
    bool balanced_ = false; // since the last one: nothing of it comes again
    long last_request_ = 0, last_post_ = 0;
    std::deque<long> sent_;                           // of the accepted uploads that are not read yet
    long cycles_ = 0;                                 // that the records came from, at least
    long lost_ = 0, dropped_items_ = 0, unknown_ = 0; // at the last balance
    long again_ = 0;                                  // records that came again, since then
    long setting_ = 0;
    int last_module_ = 99;
};

} // namespace chaos
