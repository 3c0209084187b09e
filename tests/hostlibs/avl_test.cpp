#include <cstdlib>
#include <deque>
#include <map>
#include <random>
#include <string>

#include <gtest/gtest.h>

extern "C" {
#include <libubox/avl-cmp.h>
#include <libubox/avl.h>
}

struct entry {
    std::string name;
    avl_node node = {};
};

// Height of a sound subtree; -1 where balance or parent links are broken.
static int sound_height(const avl_node *node, const avl_node *parent) {
    if (!node)
        return 0;
    int left = sound_height(node->left, node);
    int right = sound_height(node->right, node);
    if (node->parent != parent || left < 0 || right < 0 || std::abs(left - right) > 1)
        return -1;
    return std::max(left, right) + 1;
}

// Random insertions and removals, compared with a container of the same rules after each step.
static void compare_with_multimap(bool duplicates) {
    avl_tree tree;
    avl_init(&tree, avl_strcmp, duplicates, nullptr);
    std::multimap<std::string, entry *> model;
    std::deque<entry> entries;
    std::mt19937 random(7);
    for (int step = 0; step < 4000; step++) {
        std::string name = "k" + std::to_string(random() % 150);
        if (step % 3 != 2) {
            entry &fresh = entries.emplace_back();
            fresh.name = name;
            fresh.node.key = fresh.name.c_str();
            bool refused = !duplicates && model.count(name) > 0;
            ASSERT_EQ(avl_insert(&tree, &fresh.node), refused ? -1 : 0);
            if (!refused)
                model.emplace(name, &fresh);
        } else if (!model.empty()) {
            auto victim = std::next(model.begin(), static_cast<long>(random() % model.size()));
            avl_delete(&tree, &victim->second->node);
            model.erase(victim);
        }
        ASSERT_GE(sound_height(tree.root, nullptr), 0);
        ASSERT_EQ(tree.count, model.size());
        auto expected = model.begin();
        entry *pos;
        avl_for_each_element(&tree, pos, node) {
            ASSERT_EQ(pos, (expected++)->second);
        }
        entry *found = avl_find_element(&tree, name.c_str(), found, node);
        auto first = model.find(name);
        ASSERT_EQ(found, first == model.end() ? nullptr : model.lower_bound(name)->second);
        auto above = model.lower_bound(name);
        avl_node *bound = avl_find_greaterequal(&tree, name.c_str());
        ASSERT_EQ(bound, above == model.end() ? nullptr : &above->second->node);
        auto beyond = model.upper_bound(name);
        bound = avl_find_lessequal(&tree, name.c_str());
        ASSERT_EQ(bound, beyond == model.begin() ? nullptr : &std::prev(beyond)->second->node);
    }
}

TEST(Avl, KeepsOrderBalanceAndContents) {
    compare_with_multimap(false);
    compare_with_multimap(true);
}
