// VrmlWorld.cpp - the VRML97 reader behind lorvex-play's worlds (see VrmlWorld.h).
#include "VrmlWorld.h"

#include <sys/stat.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>

namespace {

// ---------------------------------------------------------------------------------------------
// Reading files

bool endsWith(const std::string& s, const char* suffix) {
    const size_t n = std::strlen(suffix);
    return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}

bool fileExists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// Reads a file, inflating it when it is gzip-compressed (zlib reads plain files unchanged).
bool readText(const std::string& path, long maxBytes, std::string* text, std::string* why) {
    gzFile f = gzopen(path.c_str(), "rb");
    if (f == nullptr) {
        *why = std::strerror(errno != 0 ? errno : ENOENT);
        return false;
    }
    char buffer[65536];
    int n = 0;
    text->clear();
    while ((n = gzread(f, buffer, sizeof buffer)) > 0) {
        if (static_cast<long>(text->size()) + n > maxBytes) {
            gzclose(f);
            *why = "larger than " + std::to_string(maxBytes) + " bytes";
            return false;
        }
        text->append(buffer, static_cast<size_t>(n));
    }
    const bool ok = n == 0;
    if (!ok) {
        int code = 0;
        *why = gzerror(f, &code);
    }
    gzclose(f);
    return ok;
}

std::string directoryOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

// A url of a world names a file relative to the world; "file:" urls name one absolutely.
// Network urls cannot be fetched here and never match.
std::string resolveUrl(const std::string& base, std::string url) {
    if (url.rfind("file://", 0) == 0) {
        url = url.substr(7);
    } else if (url.rfind("file:", 0) == 0) {
        url = url.substr(5);
    } else if (url.find("://") != std::string::npos) {
        return std::string();
    }
    const size_t fragment = url.find('#');
    if (fragment != std::string::npos) {
        url.resize(fragment);
    }
    if (url.empty()) {
        return url;
    }
    return url[0] == '/' ? url : directoryOf(base) + url;
}

// ---------------------------------------------------------------------------------------------
// Tokens

enum TokenKind { kWord, kNumber, kString, kOpenBrace, kCloseBrace, kOpenBracket, kCloseBracket };

struct Token {
    TokenKind kind;
    std::string text;
    double number = 0.0;
    int line = 0;
    int depth = 0;  // open braces and brackets before this token
};

bool isSpecial(char c) {
    return c == '{' || c == '}' || c == '[' || c == ']' || c == '"' || c == '#';
}

bool isSeparator(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == ',';
}

// Splits the text into tokens. Commas are white space in VRML, '#' starts a comment outside
// strings. A closing brace or bracket that matches no opening one is reported and dropped, so
// that one stray '}' does not swallow the rest of the file. An unterminated string ends the
// tokens there.
void tokenize(const std::string& text, const std::string& file, std::vector<Token>* tokens,
              std::vector<std::string>* messages) {
    int line = 1;
    std::string open;  // the kinds of the open braces and brackets, innermost last
    int depth = 0;
    size_t i = 0;
    while (i < text.size()) {
        const char c = text[i];
        if (c == '\n') {
            ++line;
            ++i;
        } else if (isSeparator(c)) {
            ++i;
        } else if (c == '#') {
            while (i < text.size() && text[i] != '\n') {
                ++i;
            }
        } else if (c == '"') {
            Token t{kString, std::string(), 0.0, line, depth};
            ++i;
            while (i < text.size() && text[i] != '"') {
                if (text[i] == '\\' && i + 1 < text.size()) {
                    ++i;
                }
                if (text[i] == '\n') {
                    ++line;
                }
                t.text += text[i++];
            }
            if (i >= text.size()) {
                messages->push_back(file + ":" + std::to_string(t.line) + ": unterminated string");
                return;
            }
            ++i;
            tokens->push_back(t);
        } else if (c == '{' || c == '[') {
            tokens->push_back(
                Token{c == '{' ? kOpenBrace : kOpenBracket, std::string(1, c), 0.0, line, depth});
            open += c;
            ++depth;
            ++i;
        } else if (c == '}' || c == ']') {
            if (open.empty() || open.back() != (c == '}' ? '{' : '[')) {
                messages->push_back(file + ":" + std::to_string(line) + ": unmatched '" + c + "' ignored");
            } else {
                open.pop_back();
                --depth;
                tokens->push_back(
                    Token{c == '}' ? kCloseBrace : kCloseBracket, std::string(1, c), 0.0, line, depth});
            }
            ++i;
        } else {
            const size_t start = i;
            while (i < text.size() && !isSeparator(text[i]) && !isSpecial(text[i])) {
                ++i;
            }
            Token t{kWord, text.substr(start, i - start), 0.0, line, depth};
            char* end = nullptr;
            const double v = std::strtod(t.text.c_str(), &end);
            if (end != nullptr && *end == '\0' &&
                (std::isdigit(static_cast<unsigned char>(t.text[0])) || t.text[0] == '-' ||
                 t.text[0] == '+' || t.text[0] == '.')) {
                t.kind = kNumber;
                t.number = v;
            }
            tokens->push_back(t);
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Nodes

struct Node;
using NodePtr = std::shared_ptr<Node>;

struct Value {
    std::vector<Token> scalars;  // numbers, strings, TRUE/FALSE
    std::vector<NodePtr> nodes;  // SFNode / MFNode
};

struct Node {
    std::string type;
    std::string name;
    std::string where;
    std::map<std::string, Value> fields;

    const Value* field(const char* n) const {
        auto it = fields.find(n);
        return it == fields.end() ? nullptr : &it->second;
    }
    double number(const char* n, double fallback, size_t index = 0) const {
        const Value* v = field(n);
        if (v == nullptr || v->scalars.size() <= index || v->scalars[index].kind != kNumber) {
            return fallback;
        }
        return v->scalars[index].number;
    }
    bool flag(const char* n, bool fallback) const {
        const Value* v = field(n);
        if (v == nullptr || v->scalars.empty()) {
            return fallback;
        }
        return v->scalars[0].text == "TRUE";
    }
    void vector(const char* n, double* out, int count) const {
        for (int i = 0; i < count; ++i) {
            out[i] = number(n, out[i], static_cast<size_t>(i));
        }
    }
    std::vector<std::string> strings(const char* n) const {
        std::vector<std::string> out;
        if (const Value* v = field(n)) {
            for (const Token& t : v->scalars) {
                if (t.kind == kString) {
                    out.push_back(t.text);
                }
            }
        }
        return out;
    }
    const std::vector<NodePtr>& children(const char* n) const {
        static const std::vector<NodePtr> none;
        const Value* v = field(n);
        return v == nullptr ? none : v->nodes;
    }
};

struct ParseError {
    int line;
    std::string what;
};

// Recursive-descent parser over one file's tokens. DEF names are scoped to the file, as VRML
// scopes them; a name is defined once its node is complete, so a node cannot USE itself.
class Parser {
  public:
    Parser(const std::vector<Token>& tokens, const std::string& file, std::vector<std::string>* messages)
        : tokens_(tokens), file_(file), messages_(messages) {}

    std::vector<NodePtr> parseStatements() {
        std::vector<NodePtr> roots;
        parseList(&roots, 0, false);
        return roots;
    }

  private:
    const Token* peek(size_t ahead = 0) const {
        return pos_ + ahead < tokens_.size() ? &tokens_[pos_ + ahead] : nullptr;
    }
    int line() const {
        return pos_ < tokens_.size() ? tokens_[pos_].line : (tokens_.empty() ? 1 : tokens_.back().line);
    }
    const Token& next(const char* expected) {
        if (pos_ >= tokens_.size()) {
            throw ParseError{line(), std::string("unexpected end of file, expected ") + expected};
        }
        return tokens_[pos_++];
    }
    void expect(TokenKind kind, const char* text) {
        const Token& t = next(text);
        if (t.kind != kind) {
            throw ParseError{t.line, std::string("expected '") + text + "', found '" + t.text + "'"};
        }
    }
    // Every open node and list meets the same end of file, and every level past the deepest one
    // allowed the same refusal: each is said once.
    void report(const ParseError& e) {
        const bool atEnd = pos_ >= tokens_.size();
        const bool tooDeep = e.what.rfind("nodes nested deeper", 0) == 0;
        if ((atEnd && endSaid_) || (tooDeep && depthSaid_)) {
            return;
        }
        endSaid_ = endSaid_ || atEnd;
        depthSaid_ = depthSaid_ || tooDeep;
        messages_->push_back(file_ + ":" + std::to_string(e.line) + ": " + e.what);
    }

    // After a fault, goes on at the next token at the list's own depth: the next statement of
    // the list, or the bracket that closes it.
    void resync(size_t from, int depth) {
        pos_ = std::max(pos_, from + 1);
        while (pos_ < tokens_.size() && tokens_[pos_].depth > depth) {
            ++pos_;
        }
    }

    bool startsNode(size_t at) const {
        const Token* t = at < tokens_.size() ? &tokens_[at] : nullptr;
        if (t == nullptr || t->kind != kWord) {
            return false;
        }
        if (t->text == "DEF" || t->text == "USE" || t->text == "NULL") {
            return true;
        }
        return at + 1 < tokens_.size() && tokens_[at + 1].kind == kOpenBrace;
    }

    // Statements of the file (closing = false) or the nodes of an MFNode list up to its ']'.
    void parseList(std::vector<NodePtr>* out, int depth, bool closing) {
        while (pos_ < tokens_.size()) {
            const size_t start = pos_;
            const Token& t = tokens_[pos_];
            if (closing && t.kind == kCloseBracket && t.depth == depth - 1) {
                ++pos_;
                return;
            }
            try {
                if (t.kind == kWord && (t.text == "PROTO" || t.text == "EXTERNPROTO")) {
                    skipProto();
                } else if (t.kind == kWord && t.text == "ROUTE") {
                    pos_ += 4;  // ROUTE a.b TO c.d: routes need events, which nothing here sends
                } else {
                    NodePtr n = parseNode();
                    if (n) {
                        out->push_back(n);
                    }
                }
            } catch (const ParseError& e) {
                report(e);
                resync(start, depth);
            }
        }
        if (closing) {
            report(ParseError{line(), "unexpected end of file, expected ']'"});
        }
    }

    // PROTO name [ interface ] { body } and EXTERNPROTO name [ interface ] url: the prototype's
    // instances are read as unknown nodes, so the declaration itself is only skipped.
    void skipProto() {
        const bool external = next("PROTO").text == "EXTERNPROTO";
        next("a prototype name");
        skipBalanced(kOpenBracket, kCloseBracket, "[");
        if (external) {
            if (peek() != nullptr && peek()->kind == kOpenBracket) {
                skipBalanced(kOpenBracket, kCloseBracket, "[");
            } else {
                next("a url");
            }
        } else {
            skipBalanced(kOpenBrace, kCloseBrace, "{");
        }
    }

    void skipBalanced(TokenKind open, TokenKind close, const char* text) {
        expect(open, text);
        int level = 1;
        while (level > 0) {
            const Token& t = next(open == kOpenBrace ? "'}'" : "']'");
            level += t.kind == open ? 1 : t.kind == close ? -1 : 0;
        }
    }

    NodePtr parseNode() {
        // Nodes nest by recursion here and in the walk over the scene: a hostile file could
        // nest them deep enough to overflow the stack.
        if (nesting_ >= kMaxNesting) {
            throw ParseError{line(), "nodes nested deeper than " + std::to_string(kMaxNesting) + " levels"};
        }
        struct Nest {
            int& n;
            explicit Nest(int& count) : n(++count) {}
            ~Nest() { --n; }
        } nest(nesting_);
        const Token& first = next("a node");
        if (first.kind != kWord) {
            throw ParseError{first.line, "expected a node, found '" + first.text + "'"};
        }
        if (first.text == "NULL") {
            return nullptr;
        }
        if (first.text == "USE") {
            const Token& name = next("a DEF name");
            auto it = defs_.find(name.text);
            if (it == defs_.end()) {
                throw ParseError{name.line, "USE of an unknown name '" + name.text + "'"};
            }
            return it->second;
        }
        std::string defName;
        const Token* typeToken = &first;
        if (first.text == "DEF") {
            defName = next("a DEF name").text;
            typeToken = &next("a node type");
        }
        auto node = std::make_shared<Node>();
        node->type = typeToken->text;
        node->name = defName;
        node->where = file_ + ":" + std::to_string(typeToken->line);
        const int bodyDepth = typeToken->depth + 1;
        expect(kOpenBrace, "{");
        while (true) {
            const Token* t = peek();
            if (t == nullptr) {
                throw ParseError{line(), "unexpected end of file inside " + node->type};
            }
            if (t->kind == kCloseBrace && t->depth == bodyDepth - 1) {
                ++pos_;
                break;
            }
            const size_t start = pos_;
            try {
                parseField(node.get());
            } catch (const ParseError& e) {
                report(e);
                resync(start, bodyDepth);
            }
        }
        if (!defName.empty()) {
            defs_[defName] = node;
        }
        return node;
    }

    void parseField(Node* node) {
        const Token& name = next("a field name");
        if (name.kind != kWord) {
            throw ParseError{name.line, "expected a field of " + node->type + ", found '" + name.text + "'"};
        }
        if (name.text == "ROUTE") {
            pos_ += 3;
            return;
        }
        Value& value = node->fields[name.text];
        const Token* t = peek();
        if (t == nullptr) {
            return;
        }
        if (t->kind == kOpenBracket) {
            const int inner = t->depth + 1;
            ++pos_;
            while (peek() != nullptr && !(peek()->kind == kCloseBracket && peek()->depth == inner - 1)) {
                if (startsNode(pos_) || (peek()->kind == kWord && peek()->text == "ROUTE")) {
                    parseList(&value.nodes, inner, true);
                    return;
                }
                scalar(&value);
            }
            expect(kCloseBracket, "]");
        } else if (startsNode(pos_)) {
            NodePtr n = parseNode();
            if (n) {
                value.nodes.push_back(n);
            }
        } else {
            while (peek() != nullptr && (peek()->kind == kNumber || peek()->kind == kString ||
                                         peek()->text == "TRUE" || peek()->text == "FALSE")) {
                value.scalars.push_back(tokens_[pos_++]);
            }
        }
    }

    void scalar(Value* value) {
        const Token& t = next("a value");
        if (t.kind == kOpenBrace || t.kind == kCloseBrace || t.kind == kOpenBracket) {
            throw ParseError{t.line, "unexpected '" + t.text + "' in a list"};
        }
        value->scalars.push_back(t);
    }

    const std::vector<Token>& tokens_;
    std::string file_;
    std::vector<std::string>* messages_;
    std::map<std::string, NodePtr> defs_;
    size_t pos_ = 0;
    int nesting_ = 0;
    bool endSaid_ = false;
    bool depthSaid_ = false;
    static constexpr int kMaxNesting = 256;
};

// ---------------------------------------------------------------------------------------------
// Geometry

struct Matrix {
    double m[4][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}};

    Matrix operator*(const Matrix& o) const {
        Matrix r;
        for (int i = 0; i < 4; ++i) {
            for (int j = 0; j < 4; ++j) {
                r.m[i][j] = 0;
                for (int k = 0; k < 4; ++k) {
                    r.m[i][j] += m[i][k] * o.m[k][j];
                }
            }
        }
        return r;
    }
    void point(const double* in, double* out) const {
        for (int i = 0; i < 3; ++i) {
            out[i] = m[i][0] * in[0] + m[i][1] * in[1] + m[i][2] * in[2] + m[i][3];
        }
    }
    void direction(const double* in, double* out) const {
        for (int i = 0; i < 3; ++i) {
            out[i] = m[i][0] * in[0] + m[i][1] * in[1] + m[i][2] * in[2];
        }
    }
    // Inverse of an affine matrix (the last row is 0 0 0 1). A singular one (a zero scale)
    // leaves the identity, which puts the listener at the sound's origin.
    Matrix inverse() const {
        const double(*a)[4] = m;
        const double det = a[0][0] * (a[1][1] * a[2][2] - a[1][2] * a[2][1]) -
                           a[0][1] * (a[1][0] * a[2][2] - a[1][2] * a[2][0]) +
                           a[0][2] * (a[1][0] * a[2][1] - a[1][1] * a[2][0]);
        Matrix r;
        if (std::fabs(det) < 1e-12) {
            return r;
        }
        for (int i = 0; i < 3; ++i) {
            for (int j = 0; j < 3; ++j) {
                const int i1 = (j + 1) % 3, i2 = (j + 2) % 3, j1 = (i + 1) % 3, j2 = (i + 2) % 3;
                r.m[i][j] = (a[i1][j1] * a[i2][j2] - a[i1][j2] * a[i2][j1]) / det;
            }
        }
        for (int i = 0; i < 3; ++i) {
            r.m[i][3] = -(r.m[i][0] * a[0][3] + r.m[i][1] * a[1][3] + r.m[i][2] * a[2][3]);
        }
        return r;
    }
    static Matrix translate(const double* t) {
        Matrix r;
        for (int i = 0; i < 3; ++i) {
            r.m[i][3] = t[i];
        }
        return r;
    }
    static Matrix scale(const double* s) {
        Matrix r;
        for (int i = 0; i < 3; ++i) {
            r.m[i][i] = s[i];
        }
        return r;
    }
    // Rotation by angle r[3] about the axis r[0..2] (VRML's SFRotation).
    static Matrix rotate(const double* r) {
        Matrix out;
        const double len = std::sqrt(r[0] * r[0] + r[1] * r[1] + r[2] * r[2]);
        if (len < 1e-12) {
            return out;
        }
        const double x = r[0] / len, y = r[1] / len, z = r[2] / len;
        const double c = std::cos(r[3]), s = std::sin(r[3]), t = 1 - c;
        const double rows[3][3] = {{t * x * x + c, t * x * y - s * z, t * x * z + s * y},
                                   {t * x * y + s * z, t * y * y + c, t * y * z - s * x},
                                   {t * x * z - s * y, t * y * z + s * x, t * z * z + c}};
        for (int i = 0; i < 3; ++i) {
            for (int j = 0; j < 3; ++j) {
                out.m[i][j] = rows[i][j];
            }
        }
        return out;
    }
};

Matrix transformOf(const Node& n) {
    double t[3] = {0, 0, 0}, c[3] = {0, 0, 0}, s[3] = {1, 1, 1};
    double r[4] = {0, 0, 1, 0}, so[4] = {0, 0, 1, 0};
    n.vector("translation", t, 3);
    n.vector("center", c, 3);
    n.vector("scale", s, 3);
    n.vector("rotation", r, 4);
    n.vector("scaleOrientation", so, 4);
    const double negC[3] = {-c[0], -c[1], -c[2]};
    const double negSo[4] = {so[0], so[1], so[2], -so[3]};
    return Matrix::translate(t) * Matrix::translate(c) * Matrix::rotate(r) * Matrix::rotate(so) *
           Matrix::scale(s) * Matrix::rotate(negSo) * Matrix::translate(negC);
}

double length(const double* v) {
    return std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
}

// Distance from the focus of an ellipse (the Sound's location) to its edge at angle theta from
// the direction, for an ellipse reaching `front` ahead and `back` behind: r = f*b / (a - c*cos).
double ellipseRadius(double front, double back, double cosTheta) {
    front = std::max(front, 0.0);
    back = std::max(back, 0.0);
    const double a = (front + back) / 2, c = (front - back) / 2;
    const double denominator = a - c * cosTheta;
    return denominator > 1e-12 ? front * back / denominator : std::max(front, back);
}

// ---------------------------------------------------------------------------------------------
// Walking the scene

class Walker {
  public:
    // A walker that does not look for the listener keeps the one already in the world.
    Walker(const WorldOptions& options, World* world, bool findListener)
        : options_(options), world_(world), haveViewpoint_(!findListener) {}

    void readFile(const std::string& path, const Matrix& m, int depth, const std::string& from) {
        if (depth > options_.maxInlineDepth) {
            world_->messages.push_back(from + ": Inline nested deeper than " +
                                       std::to_string(options_.maxInlineDepth) + " levels, not read");
            return;
        }
        char* real = realpath(path.c_str(), nullptr);
        const std::string key = real != nullptr ? real : path;
        std::free(real);
        if (open_.count(key) != 0) {
            world_->messages.push_back(from + ": Inline of " + path + " includes itself, not read again");
            return;
        }
        std::string text, why;
        if (!readText(path, options_.maxBytes, &text, &why)) {
            world_->messages.push_back((from.empty() ? path : from) + ": cannot read " + path + ": " + why);
            return;
        }
        if (text.rfind("#VRML V2.0", 0) != 0) {
            world_->messages.push_back(path + ":1: not a VRML97 world (no '#VRML V2.0 utf8' header)");
            return;
        }
        std::vector<Token> tokens;
        tokenize(text, path, &tokens, &world_->messages);
        text.clear();
        Parser parser(tokens, path, &world_->messages);
        const std::vector<NodePtr> roots = parser.parseStatements();
        open_.insert(key);
        files_.push_back(path);
        for (const NodePtr& n : roots) {
            walk(*n, m, depth, path);
        }
        open_.erase(key);
        ++filesRead_;
    }

    int filesRead() const { return filesRead_; }

  private:
    void walk(const Node& n, const Matrix& m, int depth, const std::string& file) {
        if (++visits_ > 1000000) {
            if (visits_ == 1000001) {
                world_->messages.push_back(n.where + ": the world is too large, the rest is not read");
            }
            return;
        }
        const std::string& t = n.type;
        if (t == "Transform") {
            walkChildren(n, "children", m * transformOf(n), depth, file);
        } else if (t == "Group" || t == "Anchor" || t == "Billboard" || t == "Collision") {
            walkChildren(n, "children", m, depth, file);
        } else if (t == "LOD") {
            // The most detailed level is the one a listener close by hears.
            const auto& levels = n.children("level");
            if (!levels.empty()) {
                walk(*levels.front(), m, depth, file);
            }
        } else if (t == "Switch") {
            const auto& choices = n.children("choice");
            const double which = n.number("whichChoice", -1);
            if (which >= 0 && which < static_cast<double>(choices.size())) {
                walk(*choices[static_cast<size_t>(which)], m, depth, file);
            }
        } else if (t == "Inline") {
            inlineWorld(n, m, depth);
        } else if (t == "Viewpoint") {
            viewpoint(n, m);
        } else if (t == "Sound") {
            sound(n, m);
        } else if (t == "Shape") {
            for (const NodePtr& a : n.children("appearance")) {
                for (const NodePtr& tex : a->children("texture")) {
                    if (tex->type == "MovieTexture") {
                        media(*tex).texture = true;
                    }
                }
            }
        } else if (t == "AudioClip" || t == "MovieTexture") {
            media(n);  // not placed by a Sound: its clip still runs, unheard
        }
    }

    void walkChildren(const Node& n, const char* field, const Matrix& m, int depth, const std::string& file) {
        for (const NodePtr& c : n.children(field)) {
            walk(*c, m, depth, file);
        }
    }

    void inlineWorld(const Node& n, const Matrix& m, int depth) {
        const std::string base = n.where.substr(0, n.where.rfind(':'));
        for (const std::string& url : n.strings("url")) {
            const std::string path = resolveUrl(base, url);
            if (!path.empty() && fileExists(path)) {
                readFile(path, m, depth + 1, n.where);
                return;
            }
        }
        world_->messages.push_back(n.where + ": Inline: no url names a readable file");
    }

    void viewpoint(const Node& n, const Matrix& m) {
        if (haveViewpoint_) {
            return;  // the first Viewpoint is the one bound when the world loads
        }
        haveViewpoint_ = true;
        double p[3] = {0, 0, 10}, o[4] = {0, 0, 1, 0};
        n.vector("position", p, 3);
        n.vector("orientation", o, 4);
        const Matrix full = m * Matrix::translate(p) * Matrix::rotate(o);
        const double origin[3] = {0, 0, 0}, front[3] = {0, 0, -1}, up[3] = {0, 1, 0};
        double wp[3], wf[3], wu[3];
        full.point(origin, wp);
        full.direction(front, wf);
        full.direction(up, wu);
        const double lf = length(wf), lu = length(wu);
        for (int i = 0; i < 3; ++i) {
            world_->listenerPosition[i] = static_cast<float>(wp[i]);
            world_->listenerFront[i] = static_cast<float>(lf > 0 ? wf[i] / lf : front[i]);
            world_->listenerUp[i] = static_cast<float>(lu > 0 ? wu[i] / lu : up[i]);
        }
    }

    WorldMedia& media(const Node& n) {
        auto it = index_.find(&n);
        if (it != index_.end()) {
            return world_->media[it->second];
        }
        index_[&n] = world_->media.size();
        world_->media.emplace_back();
        WorldMedia& w = world_->media.back();
        w.name = n.name;
        w.type = n.type;
        w.where = n.where;
        w.urls = n.strings("url");
        const std::string base = n.where.substr(0, n.where.rfind(':'));
        for (const std::string& url : w.urls) {
            const std::string path = resolveUrl(base, url);
            if (!path.empty() && fileExists(path)) {
                w.path = path;
                break;
            }
        }
        w.startTime = n.number("startTime", 0);
        w.stopTime = n.number("stopTime", 0);
        w.loop = n.flag("loop", false);
        w.rate = static_cast<float>(n.number(n.type == "AudioClip" ? "pitch" : "speed", 1));
        auto at = options_.startAt.find(n.name);
        if (!n.name.empty() && at != options_.startAt.end()) {
            w.startTime = options_.loadTime + at->second;
        }
        return w;
    }

    void sound(const Node& n, const Matrix& m) {
        for (const NodePtr& src : n.children("source")) {
            if (src->type != "AudioClip" && src->type != "MovieTexture") {
                continue;
            }
            WorldSound s;
            s.where = n.where;
            double loc[3] = {0, 0, 0}, dir[3] = {0, 0, 1};
            n.vector("location", loc, 3);
            n.vector("direction", dir, 3);
            double worldLoc[3];
            m.point(loc, worldLoc);
            // The ellipse is measured in the Sound's own coordinates, so its Transforms' scale
            // stretches it: the listener is brought into that space instead.
            const double listener[3] = {world_->listenerPosition[0], world_->listenerPosition[1],
                                        world_->listenerPosition[2]};
            double local[3];
            m.inverse().point(listener, local);
            const float floc[3] = {float(loc[0]), float(loc[1]), float(loc[2])};
            const float fdir[3] = {float(dir[0]), float(dir[1]), float(dir[2])};
            s.audible = ellipseAttenuation(floc, fdir, float(n.number("minFront", 1)),
                                           float(n.number("minBack", 1)), float(n.number("maxFront", 10)),
                                           float(n.number("maxBack", 10)), local, &s.attenuationDb);
            const double intensity = std::min(1.0, std::max(0.0, n.number("intensity", 1)));
            s.gain =
                s.audible ? static_cast<float>(intensity * std::pow(10.0, s.attenuationDb / 20.0)) : 0.0f;
            s.priority = static_cast<float>(std::min(1.0, std::max(0.0, n.number("priority", 0))));
            s.spatialize = n.flag("spatialize", true);
            double toSound[3], distance = 0;
            for (int i = 0; i < 3; ++i) {
                s.worldLocation[i] = static_cast<float>(worldLoc[i]);
                toSound[i] = worldLoc[i] - listener[i];
            }
            // A sound that is not spatialised, or stands where the listener is, comes from ahead.
            distance = s.spatialize ? length(toSound) : 0.0;
            for (int i = 0; i < 3; ++i) {
                const double unit = distance > 1e-6 ? toSound[i] / distance : world_->listenerFront[i];
                s.mixerLocation[i] = static_cast<float>(listener[i] + unit);
            }
            media(*src).sounds.push_back(s);
        }
    }

    const WorldOptions& options_;
    World* world_;
    std::map<const Node*, size_t> index_;
    std::set<std::string> open_;
    std::vector<std::string> files_;
    bool haveViewpoint_;
    long visits_ = 0;
    int filesRead_ = 0;
};

}  // namespace

bool ellipseAttenuation(const float* location, const float* direction, float minFront, float minBack,
                        float maxFront, float maxBack, const double* point, double* db) {
    double d[3], axis[3] = {direction[0], direction[1], direction[2]};
    for (int i = 0; i < 3; ++i) {
        d[i] = point[i] - location[i];
    }
    const double axisLength = length(axis);
    if (axisLength < 1e-12) {
        axis[0] = 0, axis[1] = 0, axis[2] = 1;
    } else {
        for (double& a : axis) {
            a /= axisLength;
        }
    }
    const double distance = length(d);
    const double cosTheta =
        distance > 1e-12 ? (d[0] * axis[0] + d[1] * axis[1] + d[2] * axis[2]) / distance : 1.0;
    const double inner = ellipseRadius(minFront, minBack, cosTheta);
    const double outer = std::max(inner, ellipseRadius(maxFront, maxBack, cosTheta));
    if (distance <= inner) {
        *db = 0.0;
        return true;
    }
    if (distance > outer || outer - inner < 1e-12) {
        *db = -20.0;
        return false;
    }
    *db = -20.0 * (distance - inner) / (outer - inner);
    return true;
}

bool isWorldFile(const std::string& path) {
    if (endsWith(path, ".wrl") || endsWith(path, ".wrl.gz") || endsWith(path, ".wrz") ||
        endsWith(path, ".WRL")) {
        return true;
    }
    gzFile f = gzopen(path.c_str(), "rb");
    if (f == nullptr) {
        return false;
    }
    char head[11] = {0};
    const int n = gzread(f, head, 10);
    gzclose(f);
    return n == 10 && std::strncmp(head, "#VRML V2.0", 10) == 0;
}

bool readWorld(const std::string& path, const WorldOptions& options, World* world) {
    Walker walker(options, world, false);
    Matrix identity;
    // The listener comes from the first Viewpoint, which may stand anywhere in the file, so the
    // world is walked once for it and again for the sounds, which are placed relative to it.
    World first;
    Walker probe(options, &first, true);
    probe.readFile(path, identity, 0, std::string());
    if (probe.filesRead() == 0) {
        world->messages = first.messages;
        return false;
    }
    std::copy(first.listenerPosition, first.listenerPosition + 3, world->listenerPosition);
    std::copy(first.listenerFront, first.listenerFront + 3, world->listenerFront);
    std::copy(first.listenerUp, first.listenerUp + 3, world->listenerUp);
    if (options.hasViewpoint) {
        std::copy(options.viewpoint, options.viewpoint + 3, world->listenerPosition);
    }
    walker.readFile(path, identity, 0, std::string());
    for (const auto& at : options.startAt) {
        bool used = false;
        for (const WorldMedia& m : world->media) {
            used = used || m.name == at.first;
        }
        if (!used) {
            world->unusedAt.push_back(at.first);
        }
    }
    return true;
}
