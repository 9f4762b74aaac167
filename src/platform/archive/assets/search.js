// The search page: looks through the files search/N.js from the newest to the oldest and shows what
// holds every word of the question. Works from a web server and from a folder alike: the files are
// scripts that call addPostings, because a page opened from a folder may not fetch anything.
'use strict';
(function () {
    const kPerStep = 20;  // postings shown before the reader is asked whether to go on
    const page = document.body.dataset;
    const last = Number(page.shards);
    const form = document.getElementById('search');
    const status = document.getElementById('status');
    const list = document.getElementById('found');
    const more = document.getElementById('more');
    const postings = new Map();  // number of the file -> its postings
    const waiting = new Map();   // number of the file -> who waits for it
    let question = 0;            // counts the questions; an older one stops

    const fold = (text) => text.normalize('NFKD').replace(/[\u0300-\u036f]/g, '').toLowerCase();

    window.addPostings = function (number, rows) {
        postings.set(number, rows.map((row) => ({
            address: row[0], date: row[1], author: row[2], subject: row[3], excerpt: row[4],
            text: fold(row[2] + ' ' + row[3] + ' ' + row[4] + ' ' + row[5]),
        })));
    };

    function load(number) {
        if (postings.has(number)) return Promise.resolve(true);
        if (waiting.has(number)) return waiting.get(number);
        const done = new Promise((resolve) => {
            const script = document.createElement('script');
            script.src = 'search/' + number + '.js';
            script.charset = 'utf-8';
            script.onload = () => resolve(postings.has(number));
            script.onerror = () => { waiting.delete(number); resolve(false); };
            document.head.appendChild(script);
        });
        waiting.set(number, done);
        return done;
    }

    // `text` into `node`, the words of the question marked.
    function mark(node, text, words) {
        const pattern = words.filter((word) => word.length > 1)
            .map((word) => word.replace(/[.*+?^${}()|[\]\\]/g, '\\$&')).join('|');
        if (!pattern) {
            node.textContent = text;
            return;
        }
        for (const piece of text.split(new RegExp('(' + pattern + ')', 'gi'))) {
            if (words.includes(fold(piece))) {
                const marked = document.createElement('mark');
                marked.textContent = piece;
                node.appendChild(marked);
            } else if (piece) {
                node.appendChild(document.createTextNode(piece));
            }
        }
    }

    function show(posting, words) {
        const item = document.createElement('li');
        const title = document.createElement('a');
        const subject = document.createElement('bdi');
        const by = document.createElement('span');
        const author = document.createElement('bdi');
        const excerpt = document.createElement('p');
        title.className = 'title';
        title.href = 'p/' + posting.address.slice(0, 2) + '/' + posting.address + '.html';
        mark(subject, posting.subject, words);
        title.appendChild(subject);
        by.className = 'by';
        mark(author, posting.author, words);
        by.append(author, ' · ' + posting.date);
        excerpt.className = 'excerpt';
        excerpt.dir = 'auto';
        mark(excerpt, posting.excerpt, words);
        item.append(title, by, excerpt);
        list.appendChild(item);
    }

    async function search(text) {
        const mine = ++question;
        const words = fold(text).split(/\s+/).filter((word) => word !== '');
        list.replaceChildren();
        more.hidden = true;
        if (words.length === 0) {
            status.textContent = '';
            return;
        }
        let shown = 0;
        let limit = kPerStep;
        let missing = 0;
        for (let number = last; number >= 1; --number) {
            status.textContent = 'Searching…';
            const there = await load(number);
            if (mine !== question) return;
            missing += there ? 0 : 1;
            const rows = postings.get(number) || [];
            for (let i = rows.length - 1; i >= 0; --i) {
                if (!words.every((word) => rows[i].text.includes(word))) continue;
                if (shown === limit) {
                    status.textContent = 'The newest ' + shown + ' postings found:';
                    more.hidden = false;
                    await new Promise((resolve) => { more.onclick = resolve; });
                    if (mine !== question) return;
                    more.hidden = true;
                    limit += kPerStep;
                }
                show(rows[i], words);
                ++shown;
            }
        }
        status.textContent = (shown === 0 ? 'Nothing found.'
            : shown === 1 ? '1 posting found:' : shown + ' postings found:') +
            (missing ? ' A part of the archive could not be searched.' : '');
    }

    const input = form.elements.namedItem('q');
    form.hidden = false;
    form.addEventListener('submit', (event) => {
        event.preventDefault();
        const text = input.value.trim();
        try {
            history.replaceState(null, '', '?q=' + encodeURIComponent(text));
        } catch (refused) {
            // A page opened from a folder may not change its address; the search goes on.
        }
        search(text);
    });
    input.value = new URLSearchParams(location.search).get('q') || '';
    if (input.value) search(input.value);
    else input.focus();
})();
