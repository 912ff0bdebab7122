// Trees of plain objects: what a page returns, what tests look at without a browser, and what is put on the screen.
// A text becomes a text node and nothing else, wherever it comes from.

/** Characters that nobody sees; some turn the text around them: a serial number must not be read backwards. */
const HIDDEN = /(?![\t\n\r])[\p{Cc}\p{Cf}\p{Zl}\p{Zp}\p{Default_Ignorable_Code_Point}]/gu;

/**
 * A node of a tree. Attributes that are null, undefined or false are left out; those that begin with "on" are functions;
 * `key` tells siblings apart, so that what stays keeps its focus when others come and go. Children that are null, undefined
 * or false are left out, lists are taken apart.
 */
export function element(tag, attributes, ...children) {
    return {
        tag,
        attributes: attributes ?? {},
        children: children.flat(Infinity).filter((child) => child != null && child !== false)
            .map((child) => typeof child === "object" ? child : String(child).replace(HIDDEN, "\ufffd")),
    };
}

// What a person types into a field is the property's, not the attribute's.
const PROPERTIES = new Set(["value", "checked"]);
const TREE = Symbol("the tree that a node shows");

function isSame(node, tree) {
    if (typeof tree === "string") return node.nodeType === Node.TEXT_NODE;
    return node[TREE] !== undefined && node[TREE].tag === tree.tag && node[TREE].attributes.key === tree.attributes.key;
}

function setAttributes(node, before, after) {
    for (const name of Object.keys(before))
        if (!(name in after)) setAttribute(node, name, null);
    for (const [name, value] of Object.entries(after))
        if (value !== before[name] || PROPERTIES.has(name)) setAttribute(node, name, value);
}

function setAttribute(node, name, value) {
    if (name === "key") return;
    if (name.startsWith("on") || PROPERTIES.has(name)) {
        const wanted = value ?? (name.startsWith("on") ? null : "");
        if (node[name] !== wanted) node[name] = wanted;
    } else if (value == null || value === false) {
        node.removeAttribute(name);
    } else {
        node.setAttribute(name, value === true ? "" : value);
    }
}

function make(tree) {
    if (typeof tree === "string") return document.createTextNode(tree);
    const node = document.createElement(tree.tag);
    node[TREE] = { tag: tree.tag, attributes: { key: tree.attributes.key }, children: [] };
    update(node, tree);
    return node;
}

function update(node, tree) {
    if (typeof tree === "string") {
        if (node.data !== tree) node.data = tree;
        return;
    }
    const before = node[TREE];
    if (before === tree) return;
    showChildren(node, tree.children);
    // Behind the children: the value of a choice is one of its options.
    setAttributes(node, before.attributes, tree.attributes);
    node[TREE] = tree;
}

function showChildren(parent, trees) {
    const keyed = new Map();
    const wanted = new Set(trees.map((tree) => tree.attributes?.key));
    for (const node of [...parent.childNodes]) {
        const key = node[TREE]?.attributes.key;
        if (key === undefined) continue;
        // What goes, goes first: what comes behind it then need not be moved, which would take its focus.
        if (wanted.has(key)) keyed.set(key, node);
        else node.remove();
    }
    let next = parent.firstChild;
    for (const tree of trees) {
        let node = keyed.get(tree.attributes?.key) ?? next;
        if (node && isSame(node, tree)) {
            update(node, tree);
        } else {
            node = make(tree);
        }
        if (node === next) next = next.nextSibling;
        else parent.insertBefore(node, next);
    }
    while (next) {
        const last = next;
        next = next.nextSibling;
        last.remove();
    }
}

/** Makes `parent` hold exactly these trees, and touches only what differs from what it holds. */
export function show(parent, ...trees) {
    showChildren(parent, trees);
}
