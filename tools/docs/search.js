// Shows the entries whose name has the words, then the pages whose text has all of them. The index
// is in kEntries (name, place) and kPages (title, page, text).
'use strict';

function found(words) {
    const hits = [];
    for (let i = 0; i < kEntries.length; i += 2) {
        const name = kEntries[i].toLowerCase();
        if (words.every(word => name.includes(word))) {
            hits.push({title: kEntries[i], url: kEntries[i + 1], rank: name.length, before: ''});
        }
    }
    for (let i = 0; i < kPages.length; i += 3) {
        const text = kPages[i + 2].toLowerCase();
        if (words.every(word => text.includes(word))) {
            const at = text.indexOf(words[0]);
            hits.push({title: kPages[i], url: kPages[i + 1], rank: 1000 + at / 1000,
                before: kPages[i + 2].slice(Math.max(0, at - 60), at),
                hit: kPages[i + 2].slice(at, at + words[0].length),
                after: kPages[i + 2].slice(at + words[0].length, at + 120)});
        }
    }
    return hits.sort((a, b) => a.rank - b.rank);
}

const query = new URLSearchParams(location.search).get('q') || '';
document.querySelector('nav input').value = query;
const words = query.toLowerCase().split(/\s+/).filter(word => word !== '');
const hits = words.length > 0 ? found(words) : [];
document.getElementById('count').textContent =
    words.length > 0 ? `${hits.length} found for "${query}"` : 'Type a word into the field.';
for (const hit of hits) {
    const item = document.createElement('li');
    const link = document.createElement('a');
    link.href = hit.url;
    link.textContent = hit.title;
    item.append(link);
    if (hit.hit !== undefined) {
        const place = document.createElement('span');
        const mark = document.createElement('mark');
        mark.textContent = hit.hit;
        place.append(hit.before, mark, hit.after);
        item.append(place);
    }
    document.getElementById('results').append(item);
}
