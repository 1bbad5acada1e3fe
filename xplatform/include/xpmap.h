// An ordered map with three orders of iteration. Header-only; depends on the standard library alone.
#ifndef XPMAP_H
#define XPMAP_H

#include "xptypes.h"
#include <cassert>
#include <cstddef>
#include <iterator>
#include <type_traits>
#include <utility>

namespace xpstl
{

// One entry of a map, and one node of its tree. Every node is one allocation of plain `new`: whoever is handed a node
// by map::delink frees it with `delete`. A node owns nothing but its key and value; deleting one frees no other.
//
// In a map, `second` may be changed at will. `first` and the links must be left alone: the order of the tree hangs on
// them.
template <class Key, class Value>
struct RBTree
{
    // A new node is red and hangs nowhere.
    explicit RBTree(const Key& key = Key(), const Value& value = Value())
        : first(key), second(value), LeftChild(nullptr), RightChild(nullptr), Parent(nullptr), IsRed(true)
    {
    }

    Key first;
    Value second;
    RBTree* LeftChild;  // everything below it is less than `first`
    RBTree* RightChild; // everything below it is greater than `first`
    RBTree* Parent;     // null at the root
    bool IsRed;
};

// What the three iterators have in common: the node they stand on, and the operators that make them forward iterators
// of the standard library. `It` is the iterator itself, whose inc() is the order; `NodeT` is the node, const or not.
//
// An iterator stays good while its node lives, whatever else is inserted or erased. Dereferencing one at its end is
// undefined. Two iterators of one kind are equal when they stand on the same node, or both nowhere.
template <class It, class NodeT>
struct TreeIterator
{
    typedef std::forward_iterator_tag iterator_category;
    typedef std::remove_const_t<NodeT> value_type;
    typedef std::ptrdiff_t difference_type;
    typedef NodeT* pointer;
    typedef NodeT& reference;

    NodeT& operator*() const { return *Cur; }
    NodeT* operator->() const { return Cur; }

    It& operator++()
    {
        It& self = static_cast<It&>(*this);
        self.inc();
        return self;
    }

    It operator++(int)
    {
        It before = static_cast<It&>(*this);
        ++*this;
        return before;
    }

    friend bool operator==(const It& left, const It& right) { return left.Cur == right.Cur; }
    friend bool operator!=(const It& left, const It& right) { return left.Cur != right.Cur; }

    NodeT* Cur; // the entry it stands on; null at the end

protected:
    explicit TreeIterator(NodeT* pCur) : Cur(pCur) {}
};

// Ascending keys, and back again.
template <class NodeT>
struct InOrderIterator : TreeIterator<InOrderIterator<NodeT>, NodeT>
{
    typedef TreeIterator<InOrderIterator<NodeT>, NodeT> Base;
    using Base::Cur;

    // Stands nowhere, in no tree.
    InOrderIterator() : InOrderIterator(nullptr, nullptr) {}

    InOrderIterator(NodeT* pRoot, NodeT* pCur) : Base(pCur), Root(pRoot) {}

    // An iterator that may change values is also one that may not.
    template <class Other, class = std::enable_if_t<std::is_convertible<Other*, NodeT*>::value>>
    InOrderIterator(const InOrderIterator<Other>& other) : InOrderIterator(other.Root, other.Cur)
    {
    }

    // To the next greater key. Past the greatest it stands nowhere, and neither inc nor dec leads back from there:
    // that takes reset.
    void inc()
    {
        if (Cur == nullptr)
            return;
        if (Cur->RightChild != nullptr)
        {
            Cur = Leftmost(Cur->RightChild);
            return;
        }
        NodeT* pFrom = Cur;
        Cur = Cur->Parent;
        while (Cur != nullptr && pFrom == Cur->RightChild)
        {
            pFrom = Cur;
            Cur = Cur->Parent;
        }
    }

    // To the next smaller key; the mirror of inc.
    void dec()
    {
        if (Cur == nullptr)
            return;
        if (Cur->LeftChild != nullptr)
        {
            Cur = Rightmost(Cur->LeftChild);
            return;
        }
        NodeT* pFrom = Cur;
        Cur = Cur->Parent;
        while (Cur != nullptr && pFrom == Cur->LeftChild)
        {
            pFrom = Cur;
            Cur = Cur->Parent;
        }
    }

    // To the smallest key (true) or the greatest (false) below `Root`.
    void reset(bool bToSmallest) { Cur = bToSmallest ? Leftmost(Root) : Rightmost(Root); }

    // The tree's root when this iterator was made. Insertions and erasures move the root of a tree or free it, and
    // the iterator is not told: reset is for iterators made after the last of them.
    NodeT* Root;

private:
    static NodeT* Leftmost(NodeT* pNode)
    {
        while (pNode != nullptr && pNode->LeftChild != nullptr)
            pNode = pNode->LeftChild;
        return pNode;
    }

    static NodeT* Rightmost(NodeT* pNode)
    {
        while (pNode != nullptr && pNode->RightChild != nullptr)
            pNode = pNode->RightChild;
        return pNode;
    }
};

// Pre-order: every node before what hangs below it, the left side before the right. Inserting the entries in this
// order into a plain search tree rebuilds its shape.
template <class NodeT>
struct PreOrderIterator : TreeIterator<PreOrderIterator<NodeT>, NodeT>
{
    typedef TreeIterator<PreOrderIterator<NodeT>, NodeT> Base;
    using Base::Cur;

    // From the root of a whole tree, or at the end without one.
    explicit PreOrderIterator(NodeT* pRoot = nullptr) : Base(pRoot) {}

    template <class Other, class = std::enable_if_t<std::is_convertible<Other*, NodeT*>::value>>
    PreOrderIterator(const PreOrderIterator<Other>& other) : Base(other.Cur)
    {
    }

    // To the next node; stands nowhere after the last one, and stays there.
    void inc()
    {
        if (Cur == nullptr)
            return;
        if (Cur->LeftChild != nullptr)
        {
            Cur = Cur->LeftChild;
            return;
        }
        if (Cur->RightChild != nullptr)
        {
            Cur = Cur->RightChild;
            return;
        }
        // Up to the first node whose right side is still ahead.
        NodeT* pFrom = Cur;
        NodeT* pUp = Cur->Parent;
        while (pUp != nullptr && (pUp->RightChild == nullptr || pFrom == pUp->RightChild))
        {
            pFrom = pUp;
            pUp = pUp->Parent;
        }
        Cur = pUp != nullptr ? pUp->RightChild : nullptr;
    }
};

// Post-order: every node after what hangs below it, the left side before the right. So each node may be freed once
// the iterator has left it.
template <class NodeT>
struct PostOrderIterator : TreeIterator<PostOrderIterator<NodeT>, NodeT>
{
    typedef TreeIterator<PostOrderIterator<NodeT>, NodeT> Base;
    using Base::Cur;

    // Over the whole tree of this root, or at the end without one.
    explicit PostOrderIterator(NodeT* pRoot = nullptr) : Base(FirstBelow(pRoot)) {}

    template <class Other, class = std::enable_if_t<std::is_convertible<Other*, NodeT*>::value>>
    PostOrderIterator(const PostOrderIterator<Other>& other) : Base(other.Cur)
    {
    }

    // To the next node; stands nowhere after the root, and stays there.
    void inc()
    {
        if (Cur == nullptr)
            return;
        // Told by the right child alone: the left one may have been freed by now, and a pointer to it is worth
        // nothing, not even for a comparison.
        NodeT* pUp = Cur->Parent;
        if (pUp != nullptr && pUp->RightChild != nullptr && Cur != pUp->RightChild)
            Cur = FirstBelow(pUp->RightChild);
        else
            Cur = pUp;
    }

private:
    // The first leaf reached by going left where possible, else right.
    static NodeT* FirstBelow(NodeT* pNode)
    {
        while (pNode != nullptr && (pNode->LeftChild != nullptr || pNode->RightChild != nullptr))
            pNode = pNode->LeftChild != nullptr ? pNode->LeftChild : pNode->RightChild;
        return pNode;
    }
};

// Unique keys in ascending order: a red-black tree with parent links.
//
// `Key` is any copyable type with `<`; `Value` is any copyable, default-constructible type. Insertion keeps the tree's
// height within 2 log2(size + 1), so lookups in a map that only grows are logarithmic. Erasure is deliberately simple:
// it keeps the order and gives up the balance. A map that is erased from a great deal may grow lopsided, at worst as
// high as it has entries.
//
// One map belongs to one thread at a time; several threads may read one that nobody changes. Operations throw only
// what copying a key or value, comparing keys or `new` throws, and no insertion that throws leaves a trace.
template <class Key, class Value>
class map
{
public:
    typedef Key key_type;
    typedef Value mapped_type;
    typedef std::pair<Key, Value> value_type;
    typedef uint32 size_type;
    typedef RBTree<Key, Value> Node;

    typedef InOrderIterator<Node> iterator;
    typedef PreOrderIterator<Node> ParentFirstiterator;
    typedef PostOrderIterator<Node> ParentLastiterator;

    // The same three for a map that may only be read.
    typedef InOrderIterator<const Node> const_iterator;
    typedef PreOrderIterator<const Node> const_ParentFirstiterator;
    typedef PostOrderIterator<const Node> const_ParentLastiterator;

    // What operator[] gives: a map and a key, where a read and a write part ways. It must not outlive the map.
    class AccessClass
    {
    public:
        AccessClass(map& owner, const Key& key) : m_map(owner), m_key(key) {}
        AccessClass(const AccessClass&) = default;

        // Writes the key's value. A missing key is inserted first, with a value-initialised value (0 for a number):
        // that is what the value's own assignment finds, and what stays if it throws.
        AccessClass& operator=(const Value& value)
        {
            m_map.insert(m_key, Value());
            m_map.set(m_key, value);
            return *this;
        }

        // `m[a] = m[b]` copies a value from entry to entry; it does not turn one proxy into the other.
        AccessClass& operator=(const AccessClass& other) { return *this = static_cast<Value>(other); }

        // Reads the key's value. The key must exist: a missing one is an assertion in debug builds and reads as a
        // value-initialised value otherwise. Reading never inserts.
        operator Value() const
        {
            const Node* pNode = m_map.findnode(m_key);
            assert(pNode != nullptr && "xpstl::map: a missing key was read through operator[]");
            return pNode != nullptr ? pNode->second : Value();
        }

    private:
        map& m_map;
        Key m_key; // its own copy: the proxy may outlive the argument of operator[]
    };

    map() : Root(nullptr), Size(0) {}

    // Copies the entries, not the shape: the copy's tree is the one that ascending insertion builds.
    map(const map& other) : map() { *this = other; }

    ~map() { clear(); }

    // Drops what is held, then inserts every entry of the other map in key order. There is deliberately no guard for
    // assigning a map to itself, which leaves it empty: the source is cleared with the target.
    map& operator=(const map& other) // NOLINT(bugprone-unhandled-self-assignment)
    {
        clear();
        for (const_iterator it = other.begin(); it.Cur != nullptr; it.inc())
            insert(it->first, it->second);
        return *this;
    }

    // Adds an entry. Returns false, and changes nothing, if the key exists.
    bool insert(const Key& key, const Value& value) { return Place(key, value).second; }

    // The same. Also tells where the key's entry is: the new one, or the one that was in the way.
    std::pair<iterator, bool> insert(const value_type& entry)
    {
        const std::pair<Node*, bool> placed = Place(entry.first, entry.second);
        return std::pair<iterator, bool>(iterator(Root, placed.first), placed.second);
    }

    // Overwrites the value if the key exists, else inserts it.
    void set(const Key& key, const Value& value)
    {
        const std::pair<Node*, bool> placed = Place(key, value);
        if (!placed.second)
            placed.first->second = value;
    }

    // Removes and frees the key's entry. Returns false if there is none. `key` may be the entry's own.
    bool erase(const Key& key)
    {
        Node* pNode = delink(key);
        if (pNode == nullptr)
            return false;
        delete pNode;
        return true;
    }

    // Erases the key that the iterator stands on, which is then at no entry and must not be used. Returns false for
    // an iterator at the end. An iterator of another map names a key of this one.
    bool erase(iterator it) { return it.Cur != nullptr && erase(it.Cur->first); }

    // Takes the key's entry out of the map without freeing it, or returns null if there is none. The caller owns the
    // node and frees it with `delete`; its links are null.
    Node* delink(const Key& key)
    {
        Node* pNode = Locate(key);
        if (pNode == nullptr)
            return nullptr;

        // It sinks until nothing hangs to its right, and what is left of it takes its place. No colour is mended: the
        // tree stays in order but may lose its balance. A full red-black erase would change the shapes, and with them
        // the pre-order and the post-order that callers see.
        while (pNode->RightChild != nullptr)
            rotateLeft(pNode);
        Replace(pNode, pNode->LeftChild);
        --Size;

        pNode->LeftChild = nullptr;
        pNode->Parent = nullptr;
        return pNode;
    }

    // The key's entry, or null.
    Node* findnode(const Key& key) { return Locate(key); }
    const Node* findnode(const Key& key) const { return Locate(key); }

    // The key's entry, or the end.
    iterator find(const Key& key) { return iterator(Root, Locate(key)); }
    const_iterator find(const Key& key) const { return const_iterator(Root, Locate(key)); }

    // The first entry whose key is not less than `key`, or the end.
    iterator lower_bound(const Key& key) { return LowerBound<iterator>(key); }
    const_iterator lower_bound(const Key& key) const { return LowerBound<const_iterator>(key); }

    // The first entry whose key is greater than `key`, or the end.
    iterator upper_bound(const Key& key) { return UpperBound<iterator>(key); }
    const_iterator upper_bound(const Key& key) const { return UpperBound<const_iterator>(key); }

    // Reads or writes by key; see AccessClass. It changes nothing until it is assigned to.
    AccessClass operator[](const Key& key) { return AccessClass(*this, key); }

    // Frees every entry, in post-order.
    void clear()
    {
        ParentLastiterator it(Root);
        while (it.Cur != nullptr)
        {
            Node* pNode = it.Cur;
            it.inc(); // needs the node's links, so before it is freed
            delete pNode;
        }
        Root = nullptr;
        Size = 0;
    }

    bool empty() const { return Size == 0; }
    bool isEmpty() const { return empty(); }
    uint32 size() const { return Size; }

    // The tree's root, or null when the map is empty.
    Node* getRoot() { return Root; }
    const Node* getRoot() const { return Root; }

    // In-order: at the smallest key, and past the greatest.
    iterator begin() { return AtSmallest<iterator>(); }
    const_iterator begin() const { return AtSmallest<const_iterator>(); }
    iterator end() { return iterator(Root, nullptr); }
    const_iterator end() const { return const_iterator(Root, nullptr); }

    // The same as begin().
    iterator getiterator() { return begin(); }
    const_iterator getiterator() const { return begin(); }

    // Pre-order, from the root.
    ParentFirstiterator getParentFirstiterator() { return ParentFirstiterator(Root); }
    const_ParentFirstiterator getParentFirstiterator() const { return const_ParentFirstiterator(Root); }

    // Post-order, from the first leaf to the root.
    ParentLastiterator getParentLastiterator() { return ParentLastiterator(Root); }
    const_ParentLastiterator getParentLastiterator() const { return const_ParentLastiterator(Root); }

    // To be read; only the operations above change them.
    Node* Root;  // null when empty, else black
    uint32 Size; // entries

protected:
    // Makes a node, or null, the root. The root is always black.
    void setRoot(Node* pNode)
    {
        Root = pNode;
        if (pNode == nullptr)
            return;
        pNode->Parent = nullptr;
        pNode->IsRed = false;
    }

    // The node sinks to the left and its right child, which must exist, takes its place.
    void rotateLeft(Node* pNode)
    {
        Node* pRight = pNode->RightChild;
        pNode->RightChild = pRight->LeftChild;
        if (pNode->RightChild != nullptr)
            pNode->RightChild->Parent = pNode;
        Replace(pNode, pRight);
        pRight->LeftChild = pNode;
        pNode->Parent = pRight;
    }

    // The mirror of rotateLeft.
    void rotateRight(Node* pNode)
    {
        Node* pLeft = pNode->LeftChild;
        pNode->LeftChild = pLeft->RightChild;
        if (pNode->LeftChild != nullptr)
            pNode->LeftChild->Parent = pNode;
        Replace(pNode, pLeft);
        pLeft->RightChild = pNode;
        pNode->Parent = pLeft;
    }

private:
    // Hangs pNew, which may be null, where pOld hangs. pOld's own links are the caller's to mend.
    void Replace(Node* pOld, Node* pNew)
    {
        Node* pParent = pOld->Parent;
        if (pParent == nullptr)
        {
            setRoot(pNew);
            return;
        }
        (pOld == pParent->LeftChild ? pParent->LeftChild : pParent->RightChild) = pNew;
        if (pNew != nullptr)
            pNew->Parent = pParent;
    }

    // The key's entry, and whether it is new; one that exists is left as it is.
    std::pair<Node*, bool> Place(const Key& key, const Value& value)
    {
        Node* pParent = nullptr;
        Node** ppLink = &Root;
        while (*ppLink != nullptr)
        {
            pParent = *ppLink;
            if (key < pParent->first)
                ppLink = &pParent->LeftChild;
            else if (pParent->first < key)
                ppLink = &pParent->RightChild;
            else
                return std::pair<Node*, bool>(pParent, false);
        }

        Node* pNode = new Node(key, value); // may throw: nothing has been touched yet
        pNode->Parent = pParent;
        *ppLink = pNode;
        ++Size;
        Rebalance(pNode);
        return std::pair<Node*, bool>(pNode, true);
    }

    // Restores the red-black rules above a red node that was just hung in.
    void Rebalance(Node* pNode)
    {
        // The root is black, also after erasures: so a red parent has a parent.
        while (pNode->Parent != nullptr && pNode->Parent->IsRed)
        {
            Node* pParent = pNode->Parent;
            Node* pGrand = pParent->Parent;
            const bool bLeft = pParent == pGrand->LeftChild;

            Node* pUncle = bLeft ? pGrand->RightChild : pGrand->LeftChild;
            if (pUncle != nullptr && pUncle->IsRed)
            {
                pParent->IsRed = false;
                pUncle->IsRed = false;
                pGrand->IsRed = true;
                pNode = pGrand;
                continue;
            }

            // An inner child is turned into an outer one first.
            if (pNode == (bLeft ? pParent->RightChild : pParent->LeftChild))
            {
                pNode = pParent;
                bLeft ? rotateLeft(pNode) : rotateRight(pNode);
                pParent = pNode->Parent;
            }
            pParent->IsRed = false;
            pGrand->IsRed = true;
            bLeft ? rotateRight(pGrand) : rotateLeft(pGrand);
        }
        Root->IsRed = false;
    }

    Node* Locate(const Key& key) const
    {
        Node* pNode = Root;
        while (pNode != nullptr)
        {
            if (key < pNode->first)
                pNode = pNode->LeftChild;
            else if (pNode->first < key)
                pNode = pNode->RightChild;
            else
                break;
        }
        return pNode;
    }

    template <class It>
    It AtSmallest() const
    {
        It it(Root, nullptr);
        it.reset(true);
        return it;
    }

    template <class It>
    It LowerBound(const Key& key) const
    {
        Node* pNode = Root;
        while (pNode != nullptr)
        {
            if (key < pNode->first)
            {
                if (pNode->LeftChild == nullptr)
                    break; // everything before this node is less than the key
                pNode = pNode->LeftChild;
            }
            else if (pNode->first < key)
            {
                if (pNode->RightChild == nullptr)
                {
                    It it(Root, pNode);
                    it.inc();
                    return it;
                }
                pNode = pNode->RightChild;
            }
            else
                break;
        }
        return It(Root, pNode);
    }

    template <class It>
    It UpperBound(const Key& key) const
    {
        It it = LowerBound<It>(key);
        if (it.Cur != nullptr && !(key < it.Cur->first)) // not less, so equal
            it.inc();
        return it;
    }
};

} // namespace xpstl

#endif
