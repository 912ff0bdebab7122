// Looks at a page's tree as a person would, without a browser.

/** All nodes of a tree, the outer ones first. */
export function* nodes(tree) {
    if (Array.isArray(tree)) for (const one of tree) yield* nodes(one);
    else if (tree && typeof tree === "object") {
        yield tree;
        yield* nodes(tree.children);
    }
}

export const text = (tree) => Array.isArray(tree) ? tree.map(text).join(" ")
    : tree && typeof tree === "object" ? text(tree.children) : typeof tree === "string" ? tree : "";

export const all = (tree, what) => [...nodes(tree)].filter(typeof what === "string" ? (node) => node.tag === what : what);

/** The one button that is called so; {press, why}. */
export function button(tree, name) {
    const [found, another] = all(tree, (node) => node.tag === "button" && text(node).trim() === name);
    if (!found || another) throw new Error(`${found ? "more than one" : "no"} button "${name}" in: ${text(tree)}`);
    const { onclick, "aria-disabled": isOff, "aria-describedby": reason } = found.attributes;
    const why = isOff && text(all(tree, (node) => node.attributes.id === reason)).trim();
    if (isOff && (onclick || !why)) throw new Error(`"${name}" is grey, and can be pressed or does not say why`);
    return { why, press: () => onclick() };
}
