// Runs in a browser when all frames of check.html have loaded: looks at each page, follows its
// links and reads what the searches found.
'use strict';

window.onload = () => {
    const faults = [];
    const pages = new Map();
    let links = 0;
    const fail = text => faults.push(text);
    for (const frame of document.querySelectorAll('iframe')) {
        pages.set(frame.title, frame.contentDocument);
    }
    for (const [page, doc] of pages) {
        if (doc === null || doc.title === '' || doc.querySelector('main') === null ||
            doc.querySelector('main h1') === null) {
            fail(`${page}: has no text`);
            continue;
        }
        for (const image of doc.images) {
            if (!image.complete || image.naturalWidth === 0) {
                fail(`${page}: the picture ${image.getAttribute('src')} is not shown`);
            }
        }
        for (const link of doc.querySelectorAll('a[href]')) {
            const url = new URL(link.href);
            if (url.protocol !== 'file:') {
                continue;
            }
            ++links;
            const target = url.pathname.replace(/.*\//, '');
            const place = decodeURIComponent(url.hash.slice(1));
            if (!pages.has(target)) {
                fail(`${page}: the link to ${target} leads nowhere`);
            } else if (place !== '' && pages.get(target).getElementById(place) === null) {
                fail(`${page}: ${target} has no place ${place}`);
            }
        }
    }
    const results = query => [...pages.get(`search.html?q=${query}`).querySelectorAll('#results a')]
        .map(link => link.getAttribute('href'));
    if (results('COM_GetMTU')[0] !== 'talvek_common_net_info.3.html#COM_GetMTU') {
        fail(`the search for COM_GetMTU finds ${results('COM_GetMTU')[0]}`);
    }
    if (!results('tray+open').includes('talvek_dev_optical_disc.3.html')) {
        fail(`the search for "tray open" finds ${results('tray+open')}`);
    }
    if (results('no-such-text').length !== 0) {
        fail('the search finds what is not there');
    }
    document.getElementById('report').textContent =
        faults.length === 0 ? `checked: ${pages.size} pages, ${links} links\n` : faults.join('\n') + '\n';
};
