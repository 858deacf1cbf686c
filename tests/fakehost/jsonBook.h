// JSON trees: which ones the module owns, and the calls of json-c.
#ifndef FAKEHOST_JSON_BOOK_H
#define FAKEHOST_JSON_BOOK_H

#include <cstddef>
#include <unordered_set>

#include <json-c/json.h>

namespace fakehost {

class Host;

class JsonBook {
  public:
    explicit JsonBook(Host &Owner) : m_Host(Owner) {}
    ~JsonBook();
    JsonBook(const JsonBook &) = delete;
    JsonBook &operator=(const JsonBook &) = delete;
    JsonBook(JsonBook &&) = delete;
    JsonBook &operator=(JsonBook &&) = delete;

    // The caller owns a new tree until it releases the tree or adds it to a parent.
    json_object *Made(json_object *Tree);
    // Whether `Tree` may be added to a parent.
    bool MayBeAdopted(json_object *Tree);
    void Adopted(json_object *Tree) { m_Owned.erase(Tree); }
    // Whether the caller owned `Tree`.
    bool Release(json_object *Tree);

    [[nodiscard]] std::size_t TreesInUse() const { return m_Owned.size(); }
    void ReportLeaks();

  private:
    Host &m_Host;
    std::unordered_set<json_object *> m_Owned;
};

} // namespace fakehost

#endif
