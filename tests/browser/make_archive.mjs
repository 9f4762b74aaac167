// Writes the posting files of an example archive into a folder of the service's layout and has its
// pages made by the real program. Gives the folder with the pages.
import { execFileSync } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';

export const kList = 'garden@lists.example.org';
const kPeople = ['Anna Bell <anna@example.com>', 'Bert Müller <bert.muller@example.net>', 'Chloé Dubois <chloe@example.org>',
    'דנה לוי <dana@example.com>', 'emil@example.org', 'Fumiko 田中 <fumiko@example.jp>'];
const kTopics = ['Frost warning for the weekend', 'Which beans for clay soil?', 'Seed swap in March', 'Snails, again',
    'Pruning the old pear tree', 'שאלה על עגבניות', 'Tomato blight in the greenhouse', 'トマトの病気について'];
const kPng = 'iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR42mNk+M9QDwADhgGAWjR9awAAAABJRU5ErkJggg==';

const encoded = (text) => /^[\x20-\x7e]*$/.test(text) ? text
    : text.replace(/[^<>]*[^\x20-\x7e][^<>]*/, (word) => `=?utf-8?b?${Buffer.from(word.trim()).toString('base64')}?= `);

function message(id, { from, subject, date, reply, type = 'text/plain; charset=utf-8', body, more = '' }) {
    return [`Message-ID: <browser-${id}@example.com>`, `Date: ${date.toUTCString().replace('GMT', '+0000')}`,
        `From: ${encoded(from)}`, `To: ${kList}`, `Subject: ${encoded(subject)}`,
        ...(reply ? [`In-Reply-To: <browser-${reply}@example.com>`] : []), 'MIME-Version: 1.0',
        `Content-Type: ${type}`, more + 'Content-Transfer-Encoding: 8bit', '', body, ''].join('\r\n');
}

const talk = (id) => `Hello all,

the forecast says minus two on Saturday night, so whatever stands outside wants a cover. I have ${id} old
bed sheets to lend; write to me at anna@example.com or see https://example.org/frost?day=${id} for the map.

${'Everything else can wait until the soil is warm enough, which around here is never before the middle of May. '.repeat(id % 4)}
`;
const answer = (id) => `On Monday Anna wrote:
> the forecast says minus two on Saturday night, so whatever stands outside wants a cover.
> I have old bed sheets to lend; write to me or see the map.
>
> Everything else can wait until the soil is warm enough, which around here is
> never before the middle of May.

Thank you! I'll take number ${id}. My beans are out already, foolishly.

> see the map

It shows nothing for our valley.
-- \nBert · the hill, third gate`;

export function makeArchive(folder, program) {
    const archive = path.join(folder, 'data', kList, 'archive');
    fs.mkdirSync(archive, { recursive: true });
    fs.mkdirSync(path.join(folder, 'conf'), { recursive: true });
    fs.writeFileSync(path.join(folder, 'conf', 'qvms.conf'), `[DlManager]\nDbPath=${folder}/data\n`);
    let id = 0;
    const post = (facts) => {
        ++id;
        const date = new Date(Date.UTC(2025, 9, 1) + id * 9 * 3600 * 1000);
        const name = id.toString(16).toUpperCase().padStart(8, '0') + '.msg';
        fs.writeFileSync(path.join(archive, name), message(id, { date, body: '', ...facts }));
        return id;
    };
    for (let round = 0; round < 12; ++round) {
        const subject = kTopics[round % kTopics.length];
        const first = post({ from: kPeople[round % kPeople.length], subject, body: talk(id) });
        let reply = first;
        for (let i = 0; i < round % 5; ++i)
            reply = post({ from: kPeople[(round + i + 1) % kPeople.length], subject: 'Re: ' + subject, reply: i % 2 ? reply : first, body: answer(id) });
    }
    let reply = post({ from: kPeople[0], subject: 'A long conversation', body: talk(1) });
    for (let i = 0; i < 16; ++i)
        reply = post({ from: kPeople[i % 6], subject: 'Re: A long conversation', reply, body: answer(i) });
    post({ from: kPeople[2], subject: 'W'.repeat(400) + ' a very long word', body: 'x'.repeat(4000) + '\r\n' });
    post({ from: kPeople[3], subject: 'Newsletter', type: 'text/html; charset=utf-8',
        body: '<h1>Spring</h1><p>The <a href="https://example.org/spring">programme</a> is out.</p><script>document.title="ran"</script>' });
    post({ from: kPeople[1], subject: 'Zucchini pictures', type: 'multipart/mixed; boundary=b',
        body: `--b\r\nContent-Type: text/plain; charset=utf-8\r\n\r\nThe largest is on the left, and the table:\r\n\r\nname      weight\r\nleft      3.1 kg\r\n--b\r\nContent-Type: image/png; name="Größte Zucchini.png"\r\nContent-Transfer-Encoding: base64\r\n\r\n${kPng}\r\n--b\r\nContent-Type: text/html; name="page.html"\r\n\r\n<script>document.title="ran"</script>\r\n--b--` });
    execFileSync(program, ['archive', 'rebuild', kList], { env: { ...process.env, DLMANAGER_CONF: path.join(folder, 'conf') } });
    return path.join(archive, 'html');
}
