// JSON trees: which the module owns, and what json-c is asked for on its behalf.
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

    // A new tree is the caller's, until it releases it or a parent takes it over.
    json_object *Made(json_object *Tree);
    // Whether a parent may take `Tree` over.
    bool MayBeAdopted(json_object *Tree);
    void Adopted(json_object *Tree) { m_Owned.erase(Tree); }
    // Whether `Tree` was the caller's to release.
    bool Release(json_object *Tree);

    [[nodiscard]] std::size_t TreesInUse() const { return m_Owned.size(); }
    void ReportLeaks();

  private:
    Host &m_Host;
    std::unordered_set<json_object *> m_Owned;
};

} // namespace fakehost

#endif
