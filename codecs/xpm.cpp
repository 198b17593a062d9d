// X pixmaps: the reader (any characters per pixel, hexadecimal and named
// colours, None as the transparent index) and the writer of save type 35 for
// 1-, 4- and 8-bit pictures, whose palette entries get a colour line each,
// keyed by characters counted up from '^'.
#include "codecs/codec_support.h"
#include "codecs/codecs.h"
#include "frame/byte_source.h"

#include <algorithm>
#include <iterator>
#include <cstdio>

namespace brv {

namespace {

constexpr char FIRST_KEY = '^';

// Each formatter writes one quoted row of keys at out; the position after it.
char *xpm_format_row_1bit(char *out, const uint8_t *row, int32_t width) {
    *out++ = '"';
    for (int32_t x = 0; x < width; x++) *out++ = static_cast<char>(FIRST_KEY + ((row[x >> 3] >> (7 - (x & 7))) & 1));
    *out++ = '"';
    return out;
}

char *xpm_format_row_4bit(char *out, const uint8_t *row, int32_t width) {
    *out++ = '"';
    for (int32_t x = 0; x < width; x++)
        *out++ = static_cast<char>(FIRST_KEY + (x & 1 ? row[x >> 1] & 15 : row[x >> 1] >> 4));
    *out++ = '"';
    return out;
}

// 8-bit pictures have 256 colours, so always two key characters a pixel.
char *xpm_format_row_8bit_2cpp(char *out, const uint8_t *row, int32_t width) {
    *out++ = '"';
    for (int32_t x = 0; x < width; x++) {
        *out++ = static_cast<char>(FIRST_KEY + row[x] / 32);
        *out++ = static_cast<char>(FIRST_KEY + row[x] % 32);
    }
    *out++ = '"';
    return out;
}

int write_text(int fd, const char *text) { return write_all(fd, text, static_cast<int32_t>(std::strlen(text))); }


// ---- Reading -------------------------------------------------------------------

// The common X11 colour names and their numbered shades, lower case without
// spaces, sorted.
struct named_colour {
    const char *name;
    uint32_t rgb;
};
constexpr named_colour colour_names[] = {
    {"aliceblue", 0xF0F8FF}, {"antiquewhite", 0xFAEBD7}, {"antiquewhite1", 0xFFEFDB}, {"antiquewhite2", 0xEEDFCC},
    {"antiquewhite3", 0xCDC0B0}, {"antiquewhite4", 0x8B8378}, {"aquamarine", 0x7FFFD4}, {"aquamarine1", 0x7FFFD4},
    {"aquamarine2", 0x76EEC6}, {"aquamarine3", 0x66CDAA}, {"aquamarine4", 0x458B74}, {"azure", 0xF0FFFF},
    {"azure1", 0xF0FFFF}, {"azure2", 0xE0EEEE}, {"azure3", 0xC1CDCD}, {"azure4", 0x838B8B}, {"beige", 0xF5F5DC},
    {"bisque", 0xFFE4C4}, {"bisque1", 0xFFE4C4}, {"bisque2", 0xEED5B7}, {"bisque3", 0xCDB79E}, {"bisque4", 0x8B7D6B},
    {"black", 0x000000}, {"blanchedalmond", 0xFFEBCD}, {"blue", 0x0000FF}, {"blue1", 0x0000FF}, {"blue2", 0x0000EE},
    {"blue3", 0x0000CD}, {"blue4", 0x00008B}, {"blueviolet", 0x8A2BE2}, {"brown", 0xA52A2A}, {"brown1", 0xFF4040},
    {"brown2", 0xEE3B3B}, {"brown3", 0xCD3333}, {"brown4", 0x8B2323}, {"burlywood", 0xDEB887},
    {"burlywood1", 0xFFD39B}, {"burlywood2", 0xEEC591}, {"burlywood3", 0xCDAA7D}, {"burlywood4", 0x8B7355},
    {"cadetblue", 0x5F9EA0}, {"cadetblue1", 0x98F5FF}, {"cadetblue2", 0x8EE5EE}, {"cadetblue3", 0x7AC5CD},
    {"cadetblue4", 0x53868B}, {"chartreuse", 0x7FFF00}, {"chartreuse1", 0x7FFF00}, {"chartreuse2", 0x76EE00},
    {"chartreuse3", 0x66CD00}, {"chartreuse4", 0x458B00}, {"chocolate", 0xD2691E}, {"chocolate1", 0xFF7F24},
    {"chocolate2", 0xEE7621}, {"chocolate3", 0xCD661D}, {"chocolate4", 0x8B4513}, {"coral", 0xFF7F50},
    {"coral1", 0xFF7256}, {"coral2", 0xEE6A50}, {"coral3", 0xCD5B45}, {"coral4", 0x8B3E2F},
    {"cornflowerblue", 0x6495ED}, {"cornsilk", 0xFFF8DC}, {"cornsilk1", 0xFFF8DC}, {"cornsilk2", 0xEEE8CD},
    {"cornsilk3", 0xCDC8B1}, {"cornsilk4", 0x8B8878}, {"cyan", 0x00FFFF}, {"cyan1", 0x00FFFF}, {"cyan2", 0x00EEEE},
    {"cyan3", 0x00CDCD}, {"cyan4", 0x008B8B}, {"darkblue", 0x00008B}, {"darkcyan", 0x008B8B},
    {"darkgoldenrod", 0xB8860B}, {"darkgoldenrod1", 0xFFB90F}, {"darkgoldenrod2", 0xEEAD0E},
    {"darkgoldenrod3", 0xCD950C}, {"darkgoldenrod4", 0x8B6508}, {"darkgray", 0xA9A9A9}, {"darkgreen", 0x006400},
    {"darkkhaki", 0xBDB76B}, {"darkmagenta", 0x8B008B}, {"darkolivegreen", 0x556B2F}, {"darkolivegreen1", 0xCAFF70},
    {"darkolivegreen2", 0xBCEE68}, {"darkolivegreen3", 0xA2CD5A}, {"darkolivegreen4", 0x6E8B3D},
    {"darkorange", 0xFF8C00}, {"darkorange1", 0xFF7F00}, {"darkorange2", 0xEE7600}, {"darkorange3", 0xCD6600},
    {"darkorange4", 0x8B4500}, {"darkorchid", 0x9932CC}, {"darkorchid1", 0xBF3EFF}, {"darkorchid2", 0xB23AEE},
    {"darkorchid3", 0x9A32CD}, {"darkorchid4", 0x68228B}, {"darkred", 0x8B0000}, {"darksalmon", 0xE9967A},
    {"darkseagreen", 0x8FBC8F}, {"darkseagreen1", 0xC1FFC1}, {"darkseagreen2", 0xB4EEB4},
    {"darkseagreen3", 0x9BCD9B}, {"darkseagreen4", 0x698B69}, {"darkslateblue", 0x483D8B},
    {"darkslategray", 0x2F4F4F}, {"darkslategray1", 0x97FFFF}, {"darkslategray2", 0x8DEEEE},
    {"darkslategray3", 0x79CDCD}, {"darkslategray4", 0x528B8B}, {"darkturquoise", 0x00CED1},
    {"darkviolet", 0x9400D3}, {"deeppink", 0xFF1493}, {"deeppink1", 0xFF1493}, {"deeppink2", 0xEE1289},
    {"deeppink3", 0xCD1076}, {"deeppink4", 0x8B0A50}, {"deepskyblue", 0x00BFFF}, {"deepskyblue1", 0x00BFFF},
    {"deepskyblue2", 0x00B2EE}, {"deepskyblue3", 0x009ACD}, {"deepskyblue4", 0x00688B}, {"dimgray", 0x696969},
    {"dodgerblue", 0x1E90FF}, {"dodgerblue1", 0x1E90FF}, {"dodgerblue2", 0x1C86EE}, {"dodgerblue3", 0x1874CD},
    {"dodgerblue4", 0x104E8B}, {"firebrick", 0xB22222}, {"firebrick1", 0xFF3030}, {"firebrick2", 0xEE2C2C},
    {"firebrick3", 0xCD2626}, {"firebrick4", 0x8B1A1A}, {"floralwhite", 0xFFFAF0}, {"forestgreen", 0x228B22},
    {"gainsboro", 0xDCDCDC}, {"ghostwhite", 0xF8F8FF}, {"gold", 0xFFD700}, {"gold1", 0xFFD700}, {"gold2", 0xEEC900},
    {"gold3", 0xCDAD00}, {"gold4", 0x8B7500}, {"goldenrod", 0xDAA520}, {"goldenrod1", 0xFFC125},
    {"goldenrod2", 0xEEB422}, {"goldenrod3", 0xCD9B1D}, {"goldenrod4", 0x8B6914}, {"gray", 0xBEBEBE},
    {"gray1", 0x030303}, {"gray2", 0x050505}, {"gray3", 0x080808}, {"gray4", 0x0A0A0A}, {"green", 0x00FF00},
    {"green1", 0x00FF00}, {"green2", 0x00EE00}, {"green3", 0x00CD00}, {"green4", 0x008B00},
    {"greenyellow", 0xADFF2F}, {"honeydew", 0xF0FFF0}, {"honeydew1", 0xF0FFF0}, {"honeydew2", 0xE0EEE0},
    {"honeydew3", 0xC1CDC1}, {"honeydew4", 0x838B83}, {"hotpink", 0xFF69B4}, {"hotpink1", 0xFF6EB4},
    {"hotpink2", 0xEE6AA7}, {"hotpink3", 0xCD6090}, {"hotpink4", 0x8B3A62}, {"indianred", 0xCD5C5C},
    {"indianred1", 0xFF6A6A}, {"indianred2", 0xEE6363}, {"indianred3", 0xCD5555}, {"indianred4", 0x8B3A3A},
    {"ivory", 0xFFFFF0}, {"ivory1", 0xFFFFF0}, {"ivory2", 0xEEEEE0}, {"ivory3", 0xCDCDC1}, {"ivory4", 0x8B8B83},
    {"khaki", 0xF0E68C}, {"khaki1", 0xFFF68F}, {"khaki2", 0xEEE685}, {"khaki3", 0xCDC673}, {"khaki4", 0x8B864E},
    {"lavender", 0xE6E6FA}, {"lavenderblush", 0xFFF0F5}, {"lavenderblush1", 0xFFF0F5}, {"lavenderblush2", 0xEEE0E5},
    {"lavenderblush3", 0xCDC1C5}, {"lavenderblush4", 0x8B8386}, {"lawngreen", 0x7CFC00}, {"lemonchiffon", 0xFFFACD},
    {"lemonchiffon1", 0xFFFACD}, {"lemonchiffon2", 0xEEE9BF}, {"lemonchiffon3", 0xCDC9A5},
    {"lemonchiffon4", 0x8B8970}, {"lightblue", 0xADD8E6}, {"lightblue1", 0xBFEFFF}, {"lightblue2", 0xB2DFEE},
    {"lightblue3", 0x9AC0CD}, {"lightblue4", 0x68838B}, {"lightcoral", 0xF08080}, {"lightcyan", 0xE0FFFF},
    {"lightcyan1", 0xE0FFFF}, {"lightcyan2", 0xD1EEEE}, {"lightcyan3", 0xB4CDCD}, {"lightcyan4", 0x7A8B8B},
    {"lightgoldenrod", 0xEEDD82}, {"lightgoldenrod1", 0xFFEC8B}, {"lightgoldenrod2", 0xEEDC82},
    {"lightgoldenrod3", 0xCDBE70}, {"lightgoldenrod4", 0x8B814C}, {"lightgoldenrodyellow", 0xFAFAD2},
    {"lightgray", 0xD3D3D3}, {"lightgreen", 0x90EE90}, {"lightpink", 0xFFB6C1}, {"lightpink1", 0xFFAEB9},
    {"lightpink2", 0xEEA2AD}, {"lightpink3", 0xCD8C95}, {"lightpink4", 0x8B5F65}, {"lightsalmon", 0xFFA07A},
    {"lightsalmon1", 0xFFA07A}, {"lightsalmon2", 0xEE9572}, {"lightsalmon3", 0xCD8162}, {"lightsalmon4", 0x8B5742},
    {"lightseagreen", 0x20B2AA}, {"lightskyblue", 0x87CEFA}, {"lightskyblue1", 0xB0E2FF},
    {"lightskyblue2", 0xA4D3EE}, {"lightskyblue3", 0x8DB6CD}, {"lightskyblue4", 0x607B8B},
    {"lightslateblue", 0x8470FF}, {"lightslategray", 0x778899}, {"lightsteelblue", 0xB0C4DE},
    {"lightsteelblue1", 0xCAE1FF}, {"lightsteelblue2", 0xBCD2EE}, {"lightsteelblue3", 0xA2B5CD},
    {"lightsteelblue4", 0x6E7B8B}, {"lightyellow", 0xFFFFE0}, {"lightyellow1", 0xFFFFE0}, {"lightyellow2", 0xEEEED1},
    {"lightyellow3", 0xCDCDB4}, {"lightyellow4", 0x8B8B7A}, {"limegreen", 0x32CD32}, {"linen", 0xFAF0E6},
    {"magenta", 0xFF00FF}, {"magenta1", 0xFF00FF}, {"magenta2", 0xEE00EE}, {"magenta3", 0xCD00CD},
    {"magenta4", 0x8B008B}, {"maroon", 0xB03060}, {"maroon1", 0xFF34B3}, {"maroon2", 0xEE30A7},
    {"maroon3", 0xCD2990}, {"maroon4", 0x8B1C62}, {"mediumaquamarine", 0x66CDAA}, {"mediumblue", 0x0000CD},
    {"mediumorchid", 0xBA55D3}, {"mediumorchid1", 0xE066FF}, {"mediumorchid2", 0xD15FEE},
    {"mediumorchid3", 0xB452CD}, {"mediumorchid4", 0x7A378B}, {"mediumpurple", 0x9370DB},
    {"mediumpurple1", 0xAB82FF}, {"mediumpurple2", 0x9F79EE}, {"mediumpurple3", 0x8968CD},
    {"mediumpurple4", 0x5D478B}, {"mediumseagreen", 0x3CB371}, {"mediumslateblue", 0x7B68EE},
    {"mediumspringgreen", 0x00FA9A}, {"mediumturquoise", 0x48D1CC}, {"mediumvioletred", 0xC71585},
    {"midnightblue", 0x191970}, {"mintcream", 0xF5FFFA}, {"mistyrose", 0xFFE4E1}, {"mistyrose1", 0xFFE4E1},
    {"mistyrose2", 0xEED5D2}, {"mistyrose3", 0xCDB7B5}, {"mistyrose4", 0x8B7D7B}, {"moccasin", 0xFFE4B5},
    {"navajowhite", 0xFFDEAD}, {"navajowhite1", 0xFFDEAD}, {"navajowhite2", 0xEECFA1}, {"navajowhite3", 0xCDB38B},
    {"navajowhite4", 0x8B795E}, {"navy", 0x000080}, {"navyblue", 0x000080}, {"oldlace", 0xFDF5E6},
    {"olivedrab", 0x6B8E23}, {"olivedrab1", 0xC0FF3E}, {"olivedrab2", 0xB3EE3A}, {"olivedrab3", 0x9ACD32},
    {"olivedrab4", 0x698B22}, {"orange", 0xFFA500}, {"orange1", 0xFFA500}, {"orange2", 0xEE9A00},
    {"orange3", 0xCD8500}, {"orange4", 0x8B5A00}, {"orangered", 0xFF4500}, {"orangered1", 0xFF4500},
    {"orangered2", 0xEE4000}, {"orangered3", 0xCD3700}, {"orangered4", 0x8B2500}, {"orchid", 0xDA70D6},
    {"orchid1", 0xFF83FA}, {"orchid2", 0xEE7AE9}, {"orchid3", 0xCD69C9}, {"orchid4", 0x8B4789},
    {"palegoldenrod", 0xEEE8AA}, {"palegreen", 0x98FB98}, {"palegreen1", 0x9AFF9A}, {"palegreen2", 0x90EE90},
    {"palegreen3", 0x7CCD7C}, {"palegreen4", 0x548B54}, {"paleturquoise", 0xAFEEEE}, {"paleturquoise1", 0xBBFFFF},
    {"paleturquoise2", 0xAEEEEE}, {"paleturquoise3", 0x96CDCD}, {"paleturquoise4", 0x668B8B},
    {"palevioletred", 0xDB7093}, {"palevioletred1", 0xFF82AB}, {"palevioletred2", 0xEE799F},
    {"palevioletred3", 0xCD6889}, {"palevioletred4", 0x8B475D}, {"papayawhip", 0xFFEFD5}, {"peachpuff", 0xFFDAB9},
    {"peachpuff1", 0xFFDAB9}, {"peachpuff2", 0xEECBAD}, {"peachpuff3", 0xCDAF95}, {"peachpuff4", 0x8B7765},
    {"peru", 0xCD853F}, {"pink", 0xFFC0CB}, {"pink1", 0xFFB5C5}, {"pink2", 0xEEA9B8}, {"pink3", 0xCD919E},
    {"pink4", 0x8B636C}, {"plum", 0xDDA0DD}, {"plum1", 0xFFBBFF}, {"plum2", 0xEEAEEE}, {"plum3", 0xCD96CD},
    {"plum4", 0x8B668B}, {"powderblue", 0xB0E0E6}, {"purple", 0xA020F0}, {"purple1", 0x9B30FF},
    {"purple2", 0x912CEE}, {"purple3", 0x7D26CD}, {"purple4", 0x551A8B}, {"red", 0xFF0000}, {"red1", 0xFF0000},
    {"red2", 0xEE0000}, {"red3", 0xCD0000}, {"red4", 0x8B0000}, {"rosybrown", 0xBC8F8F}, {"rosybrown1", 0xFFC1C1},
    {"rosybrown2", 0xEEB4B4}, {"rosybrown3", 0xCD9B9B}, {"rosybrown4", 0x8B6969}, {"royalblue", 0x4169E1},
    {"royalblue1", 0x4876FF}, {"royalblue2", 0x436EEE}, {"royalblue3", 0x3A5FCD}, {"royalblue4", 0x27408B},
    {"saddlebrown", 0x8B4513}, {"salmon", 0xFA8072}, {"salmon1", 0xFF8C69}, {"salmon2", 0xEE8262},
    {"salmon3", 0xCD7054}, {"salmon4", 0x8B4C39}, {"sandybrown", 0xF4A460}, {"seagreen", 0x2E8B57},
    {"seagreen1", 0x54FF9F}, {"seagreen2", 0x4EEE94}, {"seagreen3", 0x43CD80}, {"seagreen4", 0x2E8B57},
    {"seashell", 0xFFF5EE}, {"seashell1", 0xFFF5EE}, {"seashell2", 0xEEE5DE}, {"seashell3", 0xCDC5BF},
    {"seashell4", 0x8B8682}, {"sienna", 0xA0522D}, {"sienna1", 0xFF8247}, {"sienna2", 0xEE7942},
    {"sienna3", 0xCD6839}, {"sienna4", 0x8B4726}, {"skyblue", 0x87CEEB}, {"skyblue1", 0x87CEFF},
    {"skyblue2", 0x7EC0EE}, {"skyblue3", 0x6CA6CD}, {"skyblue4", 0x4A708B}, {"slateblue", 0x6A5ACD},
    {"slateblue1", 0x836FFF}, {"slateblue2", 0x7A67EE}, {"slateblue3", 0x6959CD}, {"slateblue4", 0x473C8B},
    {"slategray", 0x708090}, {"slategray1", 0xC6E2FF}, {"slategray2", 0xB9D3EE}, {"slategray3", 0x9FB6CD},
    {"slategray4", 0x6C7B8B}, {"snow", 0xFFFAFA}, {"snow1", 0xFFFAFA}, {"snow2", 0xEEE9E9}, {"snow3", 0xCDC9C9},
    {"snow4", 0x8B8989}, {"springgreen", 0x00FF7F}, {"springgreen1", 0x00FF7F}, {"springgreen2", 0x00EE76},
    {"springgreen3", 0x00CD66}, {"springgreen4", 0x008B45}, {"steelblue", 0x4682B4}, {"steelblue1", 0x63B8FF},
    {"steelblue2", 0x5CACEE}, {"steelblue3", 0x4F94CD}, {"steelblue4", 0x36648B}, {"tan", 0xD2B48C},
    {"tan1", 0xFFA54F}, {"tan2", 0xEE9A49}, {"tan3", 0xCD853F}, {"tan4", 0x8B5A2B}, {"thistle", 0xD8BFD8},
    {"thistle1", 0xFFE1FF}, {"thistle2", 0xEED2EE}, {"thistle3", 0xCDB5CD}, {"thistle4", 0x8B7B8B},
    {"tomato", 0xFF6347}, {"tomato1", 0xFF6347}, {"tomato2", 0xEE5C42}, {"tomato3", 0xCD4F39}, {"tomato4", 0x8B3626},
    {"turquoise", 0x40E0D0}, {"turquoise1", 0x00F5FF}, {"turquoise2", 0x00E5EE}, {"turquoise3", 0x00C5CD},
    {"turquoise4", 0x00868B}, {"violet", 0xEE82EE}, {"violetred", 0xD02090}, {"violetred1", 0xFF3E96},
    {"violetred2", 0xEE3A8C}, {"violetred3", 0xCD3278}, {"violetred4", 0x8B2252}, {"wheat", 0xF5DEB3},
    {"wheat1", 0xFFE7BA}, {"wheat2", 0xEED8AE}, {"wheat3", 0xCDBA96}, {"wheat4", 0x8B7E66}, {"white", 0xFFFFFF},
    {"whitesmoke", 0xF5F5F5}, {"yellow", 0xFFFF00}, {"yellow1", 0xFFFF00}, {"yellow2", 0xEEEE00},
    {"yellow3", 0xCDCD00}, {"yellow4", 0x8B8B00}, {"yellowgreen", 0x9ACD32},
};

constexpr uint32_t XPM_NONE = 0x1000000;  // a colour value: the transparent entry
constexpr int MAX_CPP = 8;
constexpr int COLOUR_TEXT = 256;  // a colour line's characters kept; the rest are names no table holds

// "grayN" / "greyN" (N percent) as the published table rounds it, or -1.
int32_t grey_level(const char *name) {
    if (std::strncmp(name, "gray", 4) != 0 || !name[4]) return -1;
    int n = 0;
    for (const char *p = name + 4; *p; p++) {
        if (*p < '0' || *p > '9' || (n = n * 10 + (*p - '0')) > 100) return -1;
    }
    int v = (n * 255 + 49) / 100;
    if (n == 10 || n == 30 || n == 70) v++;  // the table rounds these three up
    return v * 0x010101;
}

// A colour value's text to 0xRRGGBB, XPM_NONE, -1 when it is malformed or -2
// for a name outside the table.
int32_t parse_colour(const char *text) {
    if (text[0] == '#') {
        int digits = 0;
        uint64_t v = 0;
        for (const char *p = text + 1; *p; p++, digits++) {
            const int c = *p, l = c | 32;
            const int d = c >= '0' && c <= '9' ? c - '0' : l >= 'a' && l <= 'f' ? l - 'a' + 10 : -1;
            if (d < 0 || digits >= 12) return -1;
            v = v << 4 | static_cast<uint64_t>(d);
        }
        if (digits == 0 || digits % 3) return -1;
        const int k = digits / 3;  // digits a channel: keep the top eight bits
        uint32_t rgb = 0;
        for (int ch = 2; ch >= 0; ch--) {
            uint32_t c = static_cast<uint32_t>(v >> (4 * k * ch)) & ((1u << (4 * k)) - 1);
            c = k == 1 ? c * 17 : c >> (4 * k - 8);
            rgb = rgb << 8 | c;
        }
        return static_cast<int32_t>(rgb);
    }
    char name[40];
    int n = 0;
    for (const char *p = text; *p; p++) {
        if (*p == ' ' || *p == '\t') continue;
        if (n == sizeof name - 1) return -2;
        name[n++] = static_cast<char>(*p >= 'A' && *p <= 'Z' ? *p + 32 : *p);
    }
    name[n] = 0;
    if (std::strcmp(name, "none") == 0) return XPM_NONE;
    for (char *g = std::strstr(name, "grey"); g; g = std::strstr(g + 4, "grey")) g[2] = 'a';
    if (int32_t grey = grey_level(name); grey >= 0) return grey;
    auto it = std::lower_bound(std::begin(colour_names), std::end(colour_names), name,
                               [](const named_colour &c, const char *k) { return std::strcmp(c.name, k) < 0; });
    return it != std::end(colour_names) && std::strcmp(it->name, name) == 0 ? static_cast<int32_t>(it->rgb) : -2;
}

// The file is C text: quoted strings carry everything, between them come
// declarations, commas and comments.  Moves past the next opening quote;
// false when the data ends first.
bool open_string(byte_source &src) {
    for (int c = source_byte(src); c >= 0; c = source_byte(src)) {
        if (c == '"') return true;
        if (c != '/') continue;
        c = source_byte(src);
        if (c == '*') {
            for (int prev = 0; (c = source_byte(src)) >= 0 && !(prev == '*' && c == '/'); prev = c) {
            }
        } else if (c == '/') {
            while ((c = source_byte(src)) >= 0 && c != '\n') {
            }
        } else if (c == '"') {
            return true;
        }
        if (c < 0) return false;
    }
    return false;
}

// The next string's text into out (cut at cap - 1 characters, the rest
// passed over); its full length, or -1 when the data ends inside it.
int32_t read_string(byte_source &src, char *out, int32_t cap) {
    if (!open_string(src)) return -1;
    int32_t n = 0;
    for (int c = source_byte(src); c != '"'; c = source_byte(src), n++) {
        if (c < 0) return -1;
        if (n < cap - 1) out[n] = static_cast<char>(c);
    }
    out[n < cap - 1 ? n : cap - 1] = 0;
    return n;
}

// The colour a line gives, by the best visual it names: colour, then grey,
// four-level grey, mono; -1 when it names none or a malformed one.  Names
// are words that may hold spaces, so a value runs to the next visual key.
int32_t line_colour(char *text) {
    static const char *const keys[] = {"c", "g", "g4", "m", "s"};
    char *words[COLOUR_TEXT / 2];
    int count = 0;
    for (char *p = std::strtok(text, " \t"); p && count < COLOUR_TEXT / 2; p = std::strtok(nullptr, " \t"))
        words[count++] = p;
    auto key_of = [&](const char *w) {
        for (int k = 0; k < 5; k++)
            if (std::strcmp(w, keys[k]) == 0) return k;
        return -1;
    };
    int32_t best = -1;
    int best_rank = 5;
    for (int i = 0; i < count;) {
        const int k = key_of(words[i]);
        int j = i + 1;
        while (j < count && key_of(words[j]) < 0) j++;
        if (k >= 0 && k < 4 && k < best_rank && j > i + 1) {
            for (int w = i + 1; w < j - 1; w++) words[w][std::strlen(words[w])] = ' ';  // rejoin the value's words
            // A name outside the table shows as black rather than losing the
            // picture; a malformed value leaves the other visuals to answer.
            if (int32_t v = parse_colour(words[i + 1]); v != -1) best = v == -2 ? 0 : v, best_rank = k;
        }
        i = j;
    }
    return best;
}

// Up to four decimal numbers of the values line; how many were found.
int parse_values(const char *p, int32_t *v) {
    int n = 0;
    while (n < 4) {
        while (*p == ' ' || *p == '\t') p++;
        if (*p < '0' || *p > '9') break;
        int64_t x = 0;
        for (; *p >= '0' && *p <= '9'; p++)
            if ((x = x * 10 + (*p - '0')) > 0x7FFFFFFF) return n;
        v[n++] = static_cast<int32_t>(x);
    }
    return n;
}

}  // namespace

BRIVANTA_READER(xpm_read_file) {
    const int32_t start = where_is_page(where) ? file_seek(fd, 0, 1) : where;
    scratch_set mem;
    byte_source src;
    if (!source_open(src, fd, start, READ_BUFFER_SIZE + 4096)) return IMG_ERR_MEMORY;
    mem.adopt(src.buf);
    char text[COLOUR_TEXT];
    int32_t v[4];
    if (read_string(src, text, sizeof text) < 0 || parse_values(text, v) < 4) return IMG_ERR_HEADER;
    const int32_t width = v[0], height = v[1], colours = v[2], cpp = v[3];
    if (width < 1 || height < 1 || colours < 1 || cpp < 1 || cpp > MAX_CPP) return IMG_ERR_HEADER;
    // Each colour line takes at least its key, a visual and a value in quotes:
    // a count the rest of the source cannot hold is refused before any allocation.
    if (colours > (src.end - source_tell(src)) / (cpp + 5) + 1) return IMG_ERR_HEADER;
    if (cpp < 3 && colours > (1 << (8 * cpp))) return IMG_ERR_HEADER;

    auto *keys = static_cast<char *>(mem.take(static_cast<uint32_t>(colours) * cpp + 1));
    auto *values = static_cast<uint32_t *>(mem.take(static_cast<uint32_t>(colours) * 4));
    if (!keys || !values) return IMG_ERR_MEMORY;
    int32_t transparent = -1;
    for (int32_t i = 0; i < colours; i++) {
        int32_t n = read_string(src, text, sizeof text);
        if (n < cpp) return IMG_ERR_HEADER;
        std::memcpy(keys + static_cast<size_t>(i) * cpp, text, static_cast<size_t>(cpp));
        int32_t c = line_colour(text + cpp);
        if (c < 0) return IMG_ERR_HEADER;
        if (c == static_cast<int32_t>(XPM_NONE) && transparent < 0) transparent = i;
        values[i] = static_cast<uint32_t>(c);
    }

    // Every row takes its keys and two quotes: a picture the rest of the
    // source cannot hold is refused before its bitmap is allocated.
    if (int64_t{height} * (int64_t{width} * cpp + 2) > src.end - source_tell(src)) return IMG_ERR_DATA;

    // Keys to colour numbers: a direct table for one or two characters, a
    // sorted list searched per pixel for longer keys.
    int32_t *direct = nullptr, *sorted = nullptr;
    if (cpp <= 2) {
        direct = static_cast<int32_t *>(mem.take(4u << (8 * cpp)));
        if (!direct) return IMG_ERR_MEMORY;
        std::memset(direct, 0xFF, 4u << (8 * cpp));
        for (int32_t i = colours - 1; i >= 0; i--) {  // the first of equal keys wins
            const auto *k = reinterpret_cast<const uint8_t *>(keys + i * cpp);
            direct[cpp == 1 ? k[0] : k[0] << 8 | k[1]] = i;
        }
    } else {
        sorted = static_cast<int32_t *>(mem.take(static_cast<uint32_t>(colours) * 4));
        if (!sorted) return IMG_ERR_MEMORY;
        for (int32_t i = 0; i < colours; i++) sorted[i] = i;
        // In place, no allocation; among equal keys the first line comes first.
        std::sort(sorted, sorted + colours, [&](int32_t a, int32_t b) {
            int d = std::memcmp(keys + static_cast<size_t>(a) * cpp, keys + static_cast<size_t>(b) * cpp, cpp);
            return d < 0 || (d == 0 && a < b);
        });
    }

    // The transparent entry moves to the last index, since index 0 reads as
    // "no transparent colour".
    const int bits = colours <= 2 ? 1 : colours <= 16 ? 4 : colours <= 256 ? 8 : 24;
    auto *index_of = static_cast<uint8_t *>(mem.take(bits == 24 ? 1 : static_cast<uint32_t>(colours)));
    auto *dib = static_cast<dib_header *>(mem.take(sizeof(dib_header)));
    if (!index_of || !dib) return IMG_ERR_MEMORY;
    dib_info &h = dib->info;
    set_dib_size(h, width, height, bits);
    const uint32_t stride = row_bytes(width, bits);
    if (!stride || !size_mul_add(stride, static_cast<uint32_t>(height), 0, &h.biSizeImage)) return IMG_ERR_MEMORY;
    if (bits < 24) {
        for (int32_t i = 0; i < colours; i++) index_of[i] = static_cast<uint8_t>(i);
        if (transparent >= 0 && colours > 1) {
            std::swap(index_of[transparent], index_of[colours - 1]);
            h.biClrUsed = static_cast<uint32_t>(colours - 1);
        }
        for (int32_t i = 0; i < colours; i++) {
            const uint32_t c = values[i] == XPM_NONE ? 0xFFFFFF : values[i];
            uint8_t *q = dib->palette + 4 * index_of[i];
            q[0] = static_cast<uint8_t>(c), q[1] = static_cast<uint8_t>(c >> 8), q[2] = static_cast<uint8_t>(c >> 16);
        }
    }
    if (int rc = begin_image(dib, context); rc < 0) return rc;

    auto *row = static_cast<uint8_t *>(mem.take(stride + 4));
    if (!row) return IMG_ERR_MEMORY;
    char key[MAX_CPP];
    for (int32_t y = 0; y < height; y++) {
        if (!open_string(src)) return IMG_ERR_DATA;
        std::memset(row, 0, stride);
        for (int32_t x = 0; x < width; x++) {
            for (int i = 0; i < cpp; i++) {
                int c = source_byte(src);
                if (c < 0) return IMG_ERR_DATA;
                if (c == '"') return IMG_ERR_HEADER;  // a short row
                key[i] = static_cast<char>(c);
            }
            int32_t e = -1;
            if (direct) {
                const auto *k = reinterpret_cast<const uint8_t *>(key);
                e = direct[cpp == 1 ? k[0] : k[0] << 8 | k[1]];
            } else {
                auto *at = std::lower_bound(sorted, sorted + colours, key, [&](int32_t a, const char *k) {
                    return std::memcmp(keys + static_cast<size_t>(a) * cpp, k, cpp) < 0;
                });
                if (at != sorted + colours && std::memcmp(keys + static_cast<size_t>(*at) * cpp, key, cpp) == 0)
                    e = *at;
            }
            if (e < 0) return IMG_ERR_HEADER;  // a key no colour line gave
            if (bits == 24) {
                const uint32_t c = values[e] == XPM_NONE ? 0xFFFFFF : values[e];
                row[3 * x] = static_cast<uint8_t>(c), row[3 * x + 1] = static_cast<uint8_t>(c >> 8);
                row[3 * x + 2] = static_cast<uint8_t>(c >> 16);
            } else if (bits == 8) {
                row[x] = index_of[e];
            } else if (bits == 4) {
                row[x >> 1] |= static_cast<uint8_t>(index_of[e] << (x & 1 ? 0 : 4));
            } else {
                row[x >> 3] |= static_cast<uint8_t>(index_of[e] << (7 - (x & 7)));
            }
        }
        // Whatever follows the row's last key up to its quote is not picture.
        for (int c = source_byte(src); c != '"'; c = source_byte(src))
            if (c < 0) return IMG_ERR_DATA;
        if (int rc = put_row(row, context, y, static_cast<int>(stride)); rc < 0) return rc;
    }
    return 0;
}

BRIVANTA_WRITER(xpm_write_file) {
    const int bits = header->biBitCount;
    if (bits != 1 && bits != 4 && bits != 8) return IMG_ERR_DEPTH;
    if (header->biWidth < 1 || header->biHeight < 1 || header->biWidth > 0x3FFFFFF) return IMG_ERR_HEADER;
    const int32_t width = header->biWidth, height = header->biHeight;
    const int colours = 1 << bits, cpp = colours < 33 ? 1 : 2;
    const uint32_t stride = row_bytes(width, bits);
    scratch_set mem;
    auto *row = static_cast<uint8_t *>(mem.take(stride + 4));
    auto *line = static_cast<char *>(mem.take(static_cast<uint32_t>(width) * cpp + 8));
    if (!row || !line) return IMG_ERR_MEMORY;

    char text[96];
    if (int rc = write_text(fd, "/* XPM */\nstatic char *untitled[] = {\n"
                                "/* width height ncolors cpp [x_hot] [y_hot] */\n");
        rc < 0)
        return rc;
    std::snprintf(text, sizeof text, "\"%d %d %d %d -1 -1\",\n/* colors */\n", static_cast<int>(width),
                  static_cast<int>(height), colours, cpp);
    if (int rc = write_text(fd, text); rc < 0) return rc;
    static const char hex[] = "0123456789ABCDEF";
    const uint8_t *palette = reinterpret_cast<const uint8_t *>(header) + 40;
    for (int i = 0; i < colours; i++) {
        const uint8_t *q = palette + 4 * i;
        char key[3] = {static_cast<char>(FIRST_KEY + i), 0, 0};
        if (cpp == 2) key[0] = static_cast<char>(FIRST_KEY + i / 32), key[1] = static_cast<char>(FIRST_KEY + i % 32);
        std::snprintf(text, sizeof text, "\"%s\tc #%c%c%c%c%c%c\",\n", key, hex[q[2] >> 4], hex[q[2] & 15],
                      hex[q[1] >> 4], hex[q[1] & 15], hex[q[0] >> 4], hex[q[0] & 15]);
        if (int rc = write_text(fd, text); rc < 0) return rc;
    }
    if (int rc = write_text(fd, "/* pixels */\n"); rc < 0) return rc;
    for (int32_t y = 0; y < height; y++) {
        if (int rc = get_row(context, row, y, static_cast<int>(stride)); rc < 0) return rc;
        char *end = bits == 1 ? xpm_format_row_1bit(line, row, width)
                    : bits == 4 ? xpm_format_row_4bit(line, row, width)
                                : xpm_format_row_8bit_2cpp(line, row, width);
        if (y == height - 1) *end++ = '}';
        *end++ = y == height - 1 ? ';' : ',';
        *end++ = '\n';
        if (int rc = write_all(fd, line, static_cast<int32_t>(end - line)); rc < 0) return rc;
    }
    return 0;
}

}  // namespace brv
