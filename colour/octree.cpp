// The octree palette: a colour tree built from the image or from a given
// palette, reduced to at most the asked number of leaves, and the mapping
// onto it with the 16-part diffusion kernel.
#include "colour/diffuse.h"

namespace brv {

namespace {

constexpr int POOL = 800;
constexpr int NODES = 1 + 2 * POOL;  // node 0 is the root, then the two pools
constexpr int LEVELS = 8;

struct octree_node {
    uint32_t index, count, sum_red, sum_green, sum_blue, level, children;
    uint16_t child[8];  // node numbers, 0 = none
    uint16_t next, prev;
    bool in_use;
};

struct octree {
    int32_t leaves;
    int max_colours;
    int cursor[2];
    int depth_limit;
    uint16_t reducible[LEVELS];  // list heads, newest first
    int32_t square[256];         // square[d + 127] = d * d
    octree_node node[NODES];
};

constexpr int child_of(int b, int g, int r, int level) {
    const int bit = 7 - level;
    return ((b >> bit) & 1) * 4 + ((g >> bit) & 1) * 2 + ((r >> bit) & 1);
}

void octree_init(octree &t, int colours) {
    t.max_colours = colours < 8 ? 8 : colours > 256 ? 256 : colours;
    t.depth_limit = 7;
    for (int i = 0; i < 256; i++) t.square[i] = (i - 127) * (i - 127);
}

// A free node for level L: odd levels start in the first pool and even ones
// in the second, from that pool's cursor, then the other pool from its
// start.  0 when both are full.
int node_alloc(octree &t, int level) {
    const int first = (level & 1) ? 0 : 1;
    for (int pass = 0; pass < 2; pass++) {
        const int pool = pass ? 1 - first : first;
        for (int i = pass ? 0 : t.cursor[pool]; i < POOL; i++) {
            const int id = 1 + pool * POOL + i;
            if (!t.node[id].in_use) {
                t.cursor[pool] = i;
                t.node[id] = octree_node{};
                t.node[id].in_use = true;
                t.node[id].level = static_cast<uint32_t>(level);
                return id;
            }
        }
    }
    return 0;
}

void unlink(octree &t, int id) {
    octree_node &n = t.node[id];
    if (n.prev) t.node[n.prev].next = n.next;
    else t.reducible[n.level] = n.next;
    if (n.next) t.node[n.next].prev = n.prev;
    n.next = n.prev = 0;
}

// Merges the children of the cheapest node of the deepest non-empty
// reducible list into it; false when there is nothing left to reduce.
bool octree_reduce(octree &t) {
    for (int level = LEVELS - 2; level >= 0; level--) {
        int best = t.reducible[level];
        if (!best) continue;
        uint64_t best_sum = UINT64_MAX;
        for (int id = best; id; id = t.node[id].next) {
            uint64_t sum = 0;
            for (uint16_t c : t.node[id].child) sum += c ? t.node[c].count : 0;
            if (sum < best_sum) best_sum = sum, best = id;
        }
        unlink(t, best);
        octree_node &n = t.node[best];
        const bool was_leaf = n.count != 0;
        for (uint16_t &c : n.child) {
            if (!c) continue;
            const octree_node &k = t.node[c];
            n.count += k.count;
            n.sum_red += k.sum_red;
            n.sum_green += k.sum_green;
            n.sum_blue += k.sum_blue;
            t.node[c] = octree_node{};
            c = 0;
            t.leaves--;
        }
        n.children = 0;
        if (!was_leaf) t.leaves++;
        t.depth_limit = level;
        return true;
    }
    return false;
}

void octree_insert(octree &t, int b, int g, int r) {
    int id, level;
    bool missing;
    for (;;) {
        id = 0;
        missing = false;
        for (level = 0; level < LEVELS; level++) {
            const int c = t.node[id].child[child_of(b, g, r, level)];
            if (!c) {
                missing = true;
                break;
            }
            id = c;
            if (t.node[id].count) break;
        }
        if (!missing || t.leaves < t.max_colours || !octree_reduce(t)) break;
    }
    if (missing) {
        for (; level <= t.depth_limit; level++) {
            const int made = node_alloc(t, level);
            if (!made) break;  // both pools full: the colour joins the deepest node reached
            t.node[id].child[child_of(b, g, r, level)] = static_cast<uint16_t>(made);
            t.node[id].children++;
            if (level < t.depth_limit) {
                t.node[made].next = t.reducible[level];
                if (t.reducible[level]) t.node[t.reducible[level]].prev = static_cast<uint16_t>(made);
                t.reducible[level] = static_cast<uint16_t>(made);
            }
            id = made;
        }
        t.leaves++;
    }
    octree_node &n = t.node[id];
    n.sum_red += static_cast<uint32_t>(r);
    n.sum_green += static_cast<uint32_t>(g);
    n.sum_blue += static_cast<uint32_t>(b);
    n.count++;
}

// Numbers the leaves depth-first, parents before children, into pal (blue,
// green, red quads) until the maximum is reached; the count of colours.
void number_leaves(octree &t, int id, uint8_t *pal, int &n) {
    octree_node &k = t.node[id];
    if (k.count && n < t.max_colours) {
        k.index = static_cast<uint32_t>(n);
        const uint32_t v[3] = {k.sum_blue / k.count, k.sum_green / k.count, k.sum_red / k.count};
        for (int c = 0; c < 3; c++) pal[4 * n + c] = static_cast<uint8_t>(v[c] > 255 ? 255 : v[c]);
        n++;
    }
    for (uint16_t c : k.child)
        if (c && n < t.max_colours) number_leaves(t, c, pal, n);
}

int octree_build_palette(octree &t, uint8_t *pal) {
    int n = 0;
    number_leaves(t, 0, pal, n);
    return n;
}

// Palette index of a colour; cache holds index + 1 of the nearest-colour
// search by (b >> 1, g >> 1, r >> 1), which is all that search looks at.
int octree_lookup(const octree &t, const uint8_t *pal, int colours, uint16_t *cache, int b, int g, int r) {
    int id = 0;
    for (int level = 0; level < LEVELS; level++) {
        const int c = t.node[id].child[child_of(b, g, r, level)];
        if (!c) {
            const int key = (b >> 1) << 14 | (g >> 1) << 7 | (r >> 1);
            if (cache[key]) return cache[key] - 1;
            int best = 65535, index = 0;
            for (int i = 0; i < colours; i++) {
                const uint8_t *e = pal + 4 * i;
                const int d = t.square[(b >> 1) - (e[0] >> 1) + 127] + t.square[(g >> 1) - (e[1] >> 1) + 127] +
                              t.square[(r >> 1) - (e[2] >> 1) + 127];
                if (d < best) best = d, index = i;
            }
            cache[key] = static_cast<uint16_t>(index + 1);
            return index;
        }
        id = c;
        if (t.node[id].count) return static_cast<int>(t.node[id].index);
    }
    return static_cast<int>(t.node[id].index);
}

int octree_colour(int h, int bits, const uint8_t *given, int colours) {
    const int out_bits = bits == 4 ? 4 : 8;
    reshape s(h, 1u << 8 | 1u << 24, out_bits);
    if (s.result()) return s.result();
    if (given && colours <= 0) return IMG_ERR_TYPE;
    scratch_array<octree> tree(1);
    scratch_array<uint16_t> cache(1u << 21);
    if (!tree || !cache) return IMG_ERR_MEMORY;
    octree &t = *tree.data;
    octree_init(t, out_bits == 4 && colours > 16 ? 16 : colours);
    if (given) {
        for (int i = 0; i < colours && i < 256; i++) octree_insert(t, given[4 * i], given[4 * i + 1], given[4 * i + 2]);
    } else {
        by_depth(s.bits(), [&]<int B>() {
            for (int r = 0; r < s.height(); r++) {
                const uint8_t *row = s.row(r);
                for (int x = 0; x < s.width(); x++) {
                    const uint8_t *q = pixel_bgr<B>(row, s.palette(), x);
                    octree_insert(t, q[0], q[1], q[2]);
                }
            }
        });
    }
    uint8_t *pal = s.new_palette();
    const int n = octree_build_palette(t, pal);
    int r = diffuse_onto<kernel_16>(s, out_bits, pal, [&](int b, int g, int rd) {
        return octree_lookup(t, pal, n, cache.data, b, g, rd);
    });
    return s.finish(r);
}

}  // namespace

}  // namespace brv

using namespace brv;

extern "C" {

int IMG_API IMG_octree_color(int h, int bits, const void *palette, int colours) {
    return octree_colour(h, bits, static_cast<const uint8_t *>(palette), colours);
}

}  // extern "C"
